#ifndef KORVEX_SUPPORT_BIG_ENDIAN_H
#define KORVEX_SUPPORT_BIG_ENDIAN_H

#include <cstdint>

// Integers as they travel: most significant byte first, at any alignment. Compilers turn each
// function into one swap and one move.
namespace korvex {

inline unsigned char* putBig32(unsigned char* bytes, std::uint32_t value) noexcept {
  bytes[0] = static_cast<unsigned char>(value >> 24);
  bytes[1] = static_cast<unsigned char>(value >> 16);
  bytes[2] = static_cast<unsigned char>(value >> 8);
  bytes[3] = static_cast<unsigned char>(value);
  return bytes + 4;
}

inline unsigned char* putBig64(unsigned char* bytes, std::uint64_t value) noexcept {
  putBig32(bytes, static_cast<std::uint32_t>(value >> 32));
  return putBig32(bytes + 4, static_cast<std::uint32_t>(value));
}

inline const unsigned char* getBig32(const unsigned char* bytes, std::uint32_t& value) noexcept {
  value = std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
          std::uint32_t{bytes[2]} << 8 | std::uint32_t{bytes[3]};
  return bytes + 4;
}

inline const unsigned char* getBig64(const unsigned char* bytes, std::uint64_t& value) noexcept {
  std::uint32_t high = 0;
  std::uint32_t low = 0;
  bytes = getBig32(getBig32(bytes, high), low);
  value = std::uint64_t{high} << 32 | low;
  return bytes;
}

}  // namespace korvex

#endif
