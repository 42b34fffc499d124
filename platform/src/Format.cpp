#include "Format.h"

#include <cstring>

namespace qmx {
namespace {

// Everything that may stand between the percent sign and the conversion: flags, positions, width,
// precision and length. In any order: a text that only looks like such a conversion loses nothing
// but its formatting.
constexpr char kBetween[] = " +-#0'I123456789*$.hlLqjzZt";

/// "wN" and "wfN", the lengths by number of bits.
const char* skipBitWidth(const char* position) noexcept {
  if (*position != 'w') return position;
  ++position;
  return *position == 'f' ? position + 1 : position;
}

/// Where the conversion's letter is, for a position behind a percent sign.
const char* conversionAt(const char* position) noexcept {
  position += std::strspn(position, kBetween);
  position = skipBitWidth(position);
  return position + std::strspn(position, kBetween);
}

}  // namespace

bool storesThroughArgument(const char* format) noexcept {
  while ((format = std::strchr(format, '%')) != nullptr) {
    format = conversionAt(format + 1);
    if (*format == 'n') return true;
    if (*format != '\0') ++format;  // "%%" is over with its second sign
  }
  return false;
}

}  // namespace qmx
