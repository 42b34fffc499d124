#ifndef KORVEXD_HEX_H
#define KORVEXD_HEX_H

#include <cstddef>
#include <string>

namespace korvexd {

/// Two lower-case digits for each byte.
std::string hexOf(const unsigned char* bytes, std::size_t size);

}  // namespace korvexd

#endif
