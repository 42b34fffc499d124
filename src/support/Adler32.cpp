#include "support/Adler32.h"

#include <algorithm>

namespace korvex {
namespace {

constexpr std::uint32_t kModulus = 65521;  // the largest prime below 2^16

// The most bytes that can be summed before the second sum could pass 32 bits.
constexpr std::size_t kBytesBetweenReductions = 5552;

}  // namespace

std::uint32_t adler32(const unsigned char* data, std::size_t length) noexcept {
  if (data == nullptr) return 1;
  std::uint32_t first = 1;
  std::uint32_t second = 0;
  while (length > 0) {
    const std::size_t run = std::min(length, kBytesBetweenReductions);
    for (std::size_t i = 0; i < run; ++i) {
      first += data[i];
      second += first;
    }
    first %= kModulus;
    second %= kModulus;
    data += run;
    length -= run;
  }
  return second << 16 | first;
}

}  // namespace korvex
