#ifndef KORVEX_SUPPORT_BIG_ENDIAN_H
#define KORVEX_SUPPORT_BIG_ENDIAN_H

#include <cstdint>
#include <cstring>

// Integers as they travel: most significant byte first, at any alignment.
namespace korvex {

/// Converts between this machine's byte order and the wire's; the same in both directions.
inline std::uint32_t inWireOrder(std::uint32_t value) noexcept {
  return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? value : __builtin_bswap32(value);
}

inline std::uint64_t inWireOrder(std::uint64_t value) noexcept {
  return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? value : __builtin_bswap64(value);
}

inline unsigned char* putBig32(unsigned char* bytes, std::uint32_t value) noexcept {
  const std::uint32_t ordered = inWireOrder(value);
  std::memcpy(bytes, &ordered, sizeof ordered);
  return bytes + sizeof ordered;
}

inline unsigned char* putBig64(unsigned char* bytes, std::uint64_t value) noexcept {
  const std::uint64_t ordered = inWireOrder(value);
  std::memcpy(bytes, &ordered, sizeof ordered);
  return bytes + sizeof ordered;
}

/// Two adjacent fields as one integer, to be written with one store.
inline std::uint64_t joined(std::uint32_t first, std::uint32_t second) noexcept {
  return std::uint64_t{first} << 32 | second;
}

inline const unsigned char* getBig32(const unsigned char* bytes, std::uint32_t& value) noexcept {
  std::memcpy(&value, bytes, sizeof value);
  value = inWireOrder(value);
  return bytes + sizeof value;
}

inline const unsigned char* getBig64(const unsigned char* bytes, std::uint64_t& value) noexcept {
  std::memcpy(&value, bytes, sizeof value);
  value = inWireOrder(value);
  return bytes + sizeof value;
}

}  // namespace korvex

#endif
