#include <gtest/gtest.h>
#include <string>
#include <zlib.h>

#include "support/Adler32.h"
#include "support/Bytes.h"

namespace {

std::uint32_t adler32Of(const std::string& text) {
  return korvex::adler32(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

/// Bytes without a short period, the same in every run.
Bytes mixedBytes(std::size_t size) {
  Bytes bytes(size);
  std::uint32_t state = 1;
  for (unsigned char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<unsigned char>(state >> 24);
  }
  return bytes;
}

}  // namespace

TEST(Adler32, OfNoBytesIsOne) { EXPECT_EQ(adler32Of(""), 1u); }

TEST(Adler32, OfANullPointerIsOneWhateverTheLength) {
  EXPECT_EQ(korvex::adler32(nullptr, 0), 1u);
  EXPECT_EQ(korvex::adler32(nullptr, 5), 1u);
}

TEST(Adler32, OfOneByteIsBothSumsAfterIt) {
  EXPECT_EQ(adler32Of("a"), 0x00620062u);  // 1 + 0x61, twice
}

TEST(Adler32, OfKnownTexts) {
  EXPECT_EQ(adler32Of("abc"), 38600999u);
  EXPECT_EQ(adler32Of("Wikipedia"), 0x11e60398u);
}

TEST(Adler32, OfZerosCountsTheLengthInTheUpperHalf) {
  EXPECT_EQ(adler32Of(std::string(7, '\0')), 0x00070001u);
  EXPECT_EQ(adler32Of(std::string(65521, '\0')), 0x00000001u);  // the length modulo 65521
}

// The largest bytes make the largest sums: 5552 of them are the most that 32 bits take between two
// reductions.
TEST(Adler32, OfTheLargestBytesDoesNotOverflow) {
  EXPECT_EQ(adler32Of(std::string(5552, '\xff')), 4052720524u);
  EXPECT_EQ(adler32Of(std::string(5553, '\xff')), 2385091723u);
  EXPECT_EQ(adler32Of(std::string(11104, '\xff')), 4285478694u);
  EXPECT_EQ(adler32Of(std::string(1048576, '\xff')), 2391338769u);
}

TEST(Adler32, AgreesWithZlibAroundEveryReduction) {
  const Bytes bytes = mixedBytes(3 * 5552 + 2);
  for (const std::size_t whole : {0u, 5552u, 11104u, 16656u}) {
    for (std::size_t size = whole == 0 ? 0 : whole - 2; size <= whole + 2; ++size) {
      EXPECT_EQ(korvex::adler32(bytes.data(), size),
                ::adler32(1, bytes.data(), static_cast<uInt>(size)))
          << size;
    }
  }
}
