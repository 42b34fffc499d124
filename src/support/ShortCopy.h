#ifndef KORVEX_SUPPORT_SHORT_COPY_H
#define KORVEX_SUPPORT_SHORT_COPY_H

#include <cstddef>
#include <cstring>

namespace korvex {

constexpr std::size_t kCopiedWord = 16;
constexpr std::size_t kLongestCopyInPlace = 8 * kCopiedWord;

/// Whether a block is copied without a call, which would cost more than the copy: 16 to 128 bytes.
inline bool isCopiedInPlace(std::size_t size) noexcept {
  return size >= kCopiedWord && size <= kLongestCopyInPlace;
}

inline void copyWord(unsigned char* to, const unsigned char* from) noexcept {
  std::memcpy(to, from, kCopiedWord);
}

/// Copies like memcpy.
inline void copyShort(unsigned char* to, const unsigned char* from, std::size_t size) noexcept {
  if (!isCopiedInPlace(size)) {
    std::memcpy(to, from, size);
    return;
  }
  // The last word overlaps the one before it, unless the block is a number of whole words.
  for (std::size_t at = 0; at < size - kCopiedWord; at += kCopiedWord) copyWord(to + at, from + at);
  copyWord(to + size - kCopiedWord, from + size - kCopiedWord);
}

}  // namespace korvex

#endif
