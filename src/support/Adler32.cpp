#include "support/Adler32.h"

#include <algorithm>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace korvex {
namespace {

constexpr std::uint32_t kModulus = 65521;  // the largest prime below 2^16

// The most bytes that can be summed before the second sum could exceed 32 bits.
constexpr std::size_t kBytesBetweenReductions = 5552;

constexpr std::size_t kBlockSize = 16;
static_assert(255 * kBlockSize * kBlockSize / 2 < kModulus, "less than a block stays below it");

/// The two running sums: of the bytes, and of the first sum after each byte.
struct Sums {
  std::uint32_t first = 1;
  std::uint64_t second = 0;

  std::uint32_t value() const noexcept { return static_cast<std::uint32_t>(second) << 16 | first; }
};

void addBytes(Sums& sums, const unsigned char* data, std::size_t count) noexcept {
  for (std::size_t i = 0; i < count; ++i) {
    sums.first += data[i];
    sums.second += sums.first;
  }
}

#ifdef __SSE2__
std::uint64_t sumOfLanes(__m128i lanes) noexcept {
  std::uint32_t values[4];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(values), lanes);
  return std::uint64_t{values[0]} + values[1] + values[2] + values[3];
}

/// Adds blocks of 16 bytes with SSE2, which every x86-64 processor has. A byte enters the second
/// sum once for itself and once for every byte after it: within its block with a weight from 16 for
/// the first byte to 1 for the last, and 16 times for every later block.
void addBlocks(Sums& sums, const unsigned char* data, std::size_t count) noexcept {
  const __m128i zero = _mm_setzero_si128();
  const __m128i firstWeights = _mm_setr_epi16(16, 15, 14, 13, 12, 11, 10, 9);
  const __m128i lastWeights = _mm_setr_epi16(8, 7, 6, 5, 4, 3, 2, 1);
  __m128i bytes = zero;     // the sum of all bytes so far
  __m128i before = zero;    // the sum, over the blocks, of the bytes before each
  __m128i weighted = zero;  // the sum of the bytes by their weight
  for (std::size_t i = 0; i < count; ++i, data += kBlockSize) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data));
    const __m128i firstHalf = _mm_unpacklo_epi8(block, zero);
    const __m128i lastHalf = _mm_unpackhi_epi8(block, zero);
    before = _mm_add_epi32(before, bytes);
    bytes = _mm_add_epi32(bytes, _mm_sad_epu8(block, zero));
    weighted = _mm_add_epi32(weighted, _mm_madd_epi16(firstHalf, firstWeights));
    weighted = _mm_add_epi32(weighted, _mm_madd_epi16(lastHalf, lastWeights));
  }
  sums.second += std::uint64_t{sums.first} * count * kBlockSize;
  sums.second += sumOfLanes(before) * kBlockSize + sumOfLanes(weighted);
  sums.first += static_cast<std::uint32_t>(sumOfLanes(bytes));
}
#else
void addBlocks(Sums& sums, const unsigned char* data, std::size_t count) noexcept {
  addBytes(sums, data, count * kBlockSize);
}
#endif

/// Adds one run and reduces the sums.
void addRun(Sums& sums, const unsigned char* data, std::size_t length) noexcept {
  const std::size_t blocks = length / kBlockSize;
  const std::size_t inBlocks = blocks * kBlockSize;
  if (blocks > 0) addBlocks(sums, data, blocks);
  addBytes(sums, data + inBlocks, length - inBlocks);
  sums.first %= kModulus;
  sums.second %= kModulus;
}

}  // namespace

std::uint32_t adler32(const unsigned char* data, std::size_t length) noexcept {
  if (data == nullptr) return 1;
  Sums sums;
  if (length < kBlockSize) {
    // So few bytes keep both sums below the modulus, and a reduction would take longer than the
    // bytes.
    addBytes(sums, data, length);
    return sums.value();
  }
  while (length > 0) {
    const std::size_t run = std::min(length, kBytesBetweenReductions);
    addRun(sums, data, run);
    data += run;
    length -= run;
  }
  return sums.value();
}

}  // namespace korvex
