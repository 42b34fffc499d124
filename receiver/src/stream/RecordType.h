#ifndef KORVEXD_RECORD_TYPE_H
#define KORVEXD_RECORD_TYPE_H

#include <cstdint>

namespace korvexd {

// The values of a record header's `type`.
constexpr std::uint32_t kTypeOpen = 0;
constexpr std::uint32_t kTypeSegmentData = 1;
constexpr std::uint32_t kTypeSegmentEnd = 2;
constexpr std::uint32_t kTypeClose = 3;
constexpr std::uint32_t kTypeStop = 4;

}  // namespace korvexd

#endif
