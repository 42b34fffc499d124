#ifndef TESTS_SUPPORT_BYTES_H
#define TESTS_SUPPORT_BYTES_H

#include <cstddef>
#include <string>
#include <vector>

namespace korvex::test {

/// Bytes as the tests write them down: hexadecimal digits, grouped by spaces as it pleases.
using Bytes = std::vector<unsigned char>;

/// The digits alone.
inline std::string hex(const std::string& grouped) {
  std::string digits;
  for (const char digit : grouped) {
    if (digit != ' ') digits += digit;
  }
  return digits;
}

/// The bytes that the digits stand for.
inline Bytes bytesOf(const std::string& grouped) {
  const std::string digits = hex(grouped);
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

/// Lower-case digits without spaces, to compare with hex().
inline std::string hexOf(const unsigned char* bytes, std::size_t size) {
  const char* const digits = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += digits[bytes[i] / 16];
    text += digits[bytes[i] % 16];
  }
  return text;
}

inline std::string hexOf(const Bytes& bytes) { return hexOf(bytes.data(), bytes.size()); }

}  // namespace korvex::test

// The tests' short words for these.
using korvex::test::Bytes;
using korvex::test::bytesOf;
using korvex::test::hex;
using korvex::test::hexOf;

#endif
