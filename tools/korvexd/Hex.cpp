#include "korvexd/Hex.h"

namespace korvexd {

std::string hexOf(const unsigned char* bytes, std::size_t size) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

}  // namespace korvexd
