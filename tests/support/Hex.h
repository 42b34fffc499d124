#ifndef TESTS_SUPPORT_HEX_H
#define TESTS_SUPPORT_HEX_H

#include <cstdio>
#include <string>
#include <vector>

namespace korvex_test {

/// The bytes in groups of four, "ff00ee11 00000000".
inline std::string hexOf(const std::vector<unsigned char>& bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    char two[3];
    std::snprintf(two, sizeof two, "%02x", bytes[i]);
    if (i != 0 && i % 4 == 0) text += ' ';
    text += two;
  }
  return text;
}

}  // namespace korvex_test

#endif
