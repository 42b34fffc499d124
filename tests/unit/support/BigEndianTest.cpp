#include <gtest/gtest.h>

#include "support/BigEndian.h"
#include "support/Bytes.h"

TEST(BigEndian, Puts32BitsMostSignificantByteFirst) {
  Bytes bytes(6, 0xee);
  EXPECT_EQ(korvex::putBig32(bytes.data() + 1, 0x81020384), bytes.data() + 5);
  EXPECT_EQ(hexOf(bytes), hex("ee 81020384 ee"));
}

TEST(BigEndian, Puts64BitsMostSignificantByteFirst) {
  Bytes bytes(10, 0xee);
  EXPECT_EQ(korvex::putBig64(bytes.data() + 1, 0x8102030405060788), bytes.data() + 9);
  EXPECT_EQ(hexOf(bytes), hex("ee 81020304 05060788 ee"));
}

TEST(BigEndian, Gets32BitsWithTheHighestBitSet) {
  const Bytes bytes = bytesOf("81020384");
  std::uint32_t value = 0;
  EXPECT_EQ(korvex::getBig32(bytes.data(), value), bytes.data() + 4);
  EXPECT_EQ(value, 0x81020384u);
}

TEST(BigEndian, Gets64BitsWithBothHalvesFull) {
  const Bytes bytes = bytesOf("81020304 f5060788");
  std::uint64_t value = 0;
  EXPECT_EQ(korvex::getBig64(bytes.data(), value), bytes.data() + 8);
  EXPECT_EQ(value, 0x81020304f5060788u);
}

TEST(BigEndian, WorksAtEveryAlignment) {
  for (std::size_t offset = 0; offset < 8; ++offset) {
    Bytes bytes(offset + 8);
    korvex::putBig64(bytes.data() + offset, 0x0102030405060708);
    std::uint64_t value = 0;
    korvex::getBig64(bytes.data() + offset, value);
    EXPECT_EQ(bytes[offset], 0x01);
    EXPECT_EQ(value, 0x0102030405060708u) << offset;
  }
}
