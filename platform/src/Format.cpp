#include "Format.h"

#include <cstring>

namespace qmx {
namespace {

// Everything that may come between the percent sign and the conversion letter: flags, position,
// width, precision and length. In any order: text that is mistaken for such a conversion only loses
// its formatting.
constexpr const char* kBetween = " +-#0'I123456789*$.hlLqjzZt";

/// Skips "wN" and "wfN", the lengths given in bits.
const char* skipBitWidth(const char* position) noexcept {
  if (*position != 'w') return position;
  ++position;
  return *position == 'f' ? position + 1 : position;
}

/// Finds the conversion letter, from the position after a percent sign.
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
    if (*format != '\0') ++format;  // "%%" ends with its second sign
  }
  return false;
}

}  // namespace qmx
