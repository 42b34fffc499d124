#ifndef KORVEX_SUPPORT_ADLER32_H
#define KORVEX_SUPPORT_ADLER32_H

#include <cstddef>
#include <cstdint>

namespace korvex {

/// The Adler-32 checksum of RFC 1950. 1 for no bytes and for a null pointer.
std::uint32_t adler32(const unsigned char* data, std::size_t length) noexcept;

}  // namespace korvex

#endif
