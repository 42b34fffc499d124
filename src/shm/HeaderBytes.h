#ifndef KORVEX_SHM_HEADER_BYTES_H
#define KORVEX_SHM_HEADER_BYTES_H

#include "korvex/ShmCommon.h"
#include "support/BigEndian.h"

namespace korvex {

constexpr unsigned long kHeaderSize = 48;

/// Writes the header's bytes and returns the first byte after them. Inline for whoever packs one
/// record after the other.
inline unsigned char* putHeader(unsigned char* bytes, const qmx_shm_message_t& header) noexcept {
  // All is read before the first byte is written, for the compiler must reckon with bytes that lie
  // in the header. Not by one copy, which would wait for the fields that were just set.
  const std::uint64_t typeAndLen = joined(header.type, header.len);
  const std::uint64_t sequence = header.sequence;
  const std::uint64_t segmentCount = header.segmentCount;
  const std::uint64_t emptyAndState = joined(header.segmentEmpty, header.segState);
  const std::uint64_t firstParameters = joined(header.algParam1, header.algParam2);
  const std::uint64_t lastParameterAndMagic = joined(header.algParam3, header.magic);
  bytes = putBig64(bytes, typeAndLen);
  bytes = putBig64(bytes, sequence);
  bytes = putBig64(bytes, segmentCount);
  bytes = putBig64(bytes, emptyAndState);
  bytes = putBig64(bytes, firstParameters);
  return putBig64(bytes, lastParameterAndMagic);
}

}  // namespace korvex

#endif
