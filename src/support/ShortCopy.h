#ifndef KORVEX_SUPPORT_SHORT_COPY_H
#define KORVEX_SUPPORT_SHORT_COPY_H

#include <cstddef>
#include <cstring>

namespace korvex {

/// Copies like memcpy; blocks of 16 to 32 bytes without a call, which would cost more than they do.
inline void copyShort(unsigned char* to, const unsigned char* from, std::size_t size) noexcept {
  constexpr std::size_t kWord = 16;
  if (size < kWord || size > 2 * kWord) {
    std::memcpy(to, from, size);
    return;
  }
  // Two words, which overlap unless the block is as long as both.
  std::memcpy(to, from, kWord);
  std::memcpy(to + size - kWord, from + size - kWord, kWord);
}

}  // namespace korvex

#endif
