#ifndef KORVEX_SUPPORT_BIG_ENDIAN_H
#define KORVEX_SUPPORT_BIG_ENDIAN_H

#include <cstdint>
#include <cstring>

// Integers as they travel: most significant byte first, at any alignment.
namespace korvex {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the swaps below assume it");

inline unsigned char* putBig32(unsigned char* bytes, std::uint32_t value) noexcept {
  const std::uint32_t swapped = __builtin_bswap32(value);
  std::memcpy(bytes, &swapped, sizeof swapped);
  return bytes + sizeof swapped;
}

inline unsigned char* putBig64(unsigned char* bytes, std::uint64_t value) noexcept {
  const std::uint64_t swapped = __builtin_bswap64(value);
  std::memcpy(bytes, &swapped, sizeof swapped);
  return bytes + sizeof swapped;
}

/// Two adjacent fields as one integer, to be written with one store.
inline std::uint64_t joined(std::uint32_t first, std::uint32_t second) noexcept {
  return std::uint64_t{first} << 32 | second;
}

inline const unsigned char* getBig32(const unsigned char* bytes, std::uint32_t& value) noexcept {
  std::memcpy(&value, bytes, sizeof value);
  value = __builtin_bswap32(value);
  return bytes + sizeof value;
}

inline const unsigned char* getBig64(const unsigned char* bytes, std::uint64_t& value) noexcept {
  std::memcpy(&value, bytes, sizeof value);
  value = __builtin_bswap64(value);
  return bytes + sizeof value;
}

}  // namespace korvex

#endif
