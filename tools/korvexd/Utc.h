#ifndef KORVEXD_UTC_H
#define KORVEXD_UTC_H

#include <ctime>
#include <string>

namespace korvexd {

/// "20261121T005623Z", for file names.
std::string utcForFileName(std::time_t time);

/// "2026-11-21T00:56:23Z".
std::string utcText(std::time_t time);

}  // namespace korvexd

#endif
