#ifndef KORVEX_SHM_HEADER_BYTES_H
#define KORVEX_SHM_HEADER_BYTES_H

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "korvex/ShmCommon.h"
#include "shm/Format.h"
#include "support/BigEndian.h"

namespace korvex {

#ifdef __SSE2__
/// Swaps the bytes of each of four 32-bit integers.
inline __m128i swappedWords(__m128i words) noexcept {
  const __m128i pairs = _mm_or_si128(_mm_slli_epi16(words, 8), _mm_srli_epi16(words, 8));
  return _mm_shufflehi_epi16(_mm_shufflelo_epi16(pairs, 0xb1), 0xb1);
}

/// Writes the header's bytes and returns a pointer past them. Inline, for code that packs one
/// record after another.
///
/// The fields have the same offsets in memory as on the wire, so four of them are stored at once:
/// packing is limited by the number of stores, not by their width. The first fields are stored
/// separately: they change with every record, and a wide load would stall on the stores that
/// changed them.
inline unsigned char* putHeader(unsigned char* bytes, const qmx_shm_message_t& header) noexcept {
  const std::uint64_t typeAndLen = joined(header.type, header.len);
  const std::uint64_t sequence = header.sequence;
  const auto* const source = reinterpret_cast<const unsigned char*>(&header);
  const __m128i middle =
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + kSegmentCountOffset));
  const __m128i last = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + kAlgParamsOffset));
  putBig64(putBig64(bytes, typeAndLen), sequence);
  // The 64-bit count needs its two words swapped too.
  const __m128i countFirst = _mm_shuffle_epi32(swappedWords(middle), 0xe1);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes + kSegmentCountOffset), countFirst);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes + kAlgParamsOffset), swappedWords(last));
  return bytes + kHeaderSize;
}
#else
/// Writes the header's bytes and returns a pointer past them.
inline unsigned char* putHeader(unsigned char* bytes, const qmx_shm_message_t& header) noexcept {
  bytes = putBig64(bytes, joined(header.type, header.len));
  bytes = putBig64(bytes, header.sequence);
  bytes = putBig64(bytes, header.segmentCount);
  bytes = putBig64(bytes, joined(header.segmentEmpty, header.segState));
  bytes = putBig64(bytes, joined(header.algParam1, header.algParam2));
  return putBig64(bytes, joined(header.algParam3, header.magic));
}
#endif

}  // namespace korvex

#endif
