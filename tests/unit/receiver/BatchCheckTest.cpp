#include <gtest/gtest.h>

#include "korvex/receiver/BatchCheck.h"
#include "support/WireFormat.h"

using korvex::receiver::BatchCheck;
using korvex::test::BatchBytes;
using korvex::test::Bytes;
using Defect = korvex::receiver::BatchCheck::Defect;

namespace {

// In a batch of BatchBytes: the first record's header starts at 8, its length is at 12, its magic
// at 52, its data at 56.
constexpr std::size_t kCount = 4;
constexpr std::size_t kFirstLength = 12;
constexpr std::size_t kFirstMagic = 52;

BatchCheck check(const Bytes& untrusted) { return BatchCheck(untrusted.data(), untrusted.size()); }

BatchBytes twoRecords() { return BatchBytes().record(1, 2, "abc").record(2, 3); }

}  // namespace

TEST(BatchCheck, AcceptsAWholeBatchWrittenByHand) {
  const Bytes batch = {0xff, 0x00, 0xee, 0x11, 0,    0,    0,    1,     // magic, one record
                       0,    0,    0,    1,    0,    0,    0,    2,     // type, len
                       0,    0,    0,    0,    0,    0,    0,    5,     // sequence
                       0,    0,    0,    0,    0,    0,    0,    0,     // segmentCount
                       0,    0,    0,    0,    0,    0,    0,    0,     // segmentEmpty, segState
                       0,    0,    0,    0,    0,    0,    0,    0,     // algParam1, algParam2
                       0,    0,    0,    0,    0xaa, 0xbb, 0xcc, 0xdd,  // algParam3, magic
                       'h',  'i'};
  EXPECT_TRUE(check(batch).ok());
  EXPECT_EQ(check(batch).offset(), 58u);
}

TEST(BatchCheck, AcceptsABatchWithoutRecords) { EXPECT_TRUE(check(BatchBytes().bytes()).ok()); }

TEST(BatchCheck, AcceptsRecordsWithAndWithoutData) {
  EXPECT_TRUE(check(twoRecords().bytes()).ok());
}

TEST(BatchCheck, LeavesFieldsAloneThatBelongToTheStream) {
  EXPECT_TRUE(check(BatchBytes().record(4000000000, 0).bytes()).ok());
}

TEST(BatchCheckUntrusted, RefusesEveryTruncation) {
  const Bytes whole = twoRecords().bytes();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    // A block of its own: the sanitizer sees an overrun.
    const Bytes cut(whole.data(), whole.data() + size);
    EXPECT_FALSE(check(cut).ok()) << "cut after " << size << " bytes";
  }
}

TEST(BatchCheckUntrusted, TellsWhichBlockATruncationCut) {
  const Bytes whole = twoRecords().bytes();
  const auto defectAt = [&](std::size_t size) {
    return check(Bytes(whole.data(), whole.data() + size)).defect();
  };
  EXPECT_EQ(defectAt(7), Defect::MetaDataCut);
  EXPECT_EQ(defectAt(8), Defect::HeaderCut);
  EXPECT_EQ(defectAt(55), Defect::HeaderCut);
  EXPECT_EQ(defectAt(56), Defect::DataCut);
  EXPECT_EQ(defectAt(58), Defect::DataCut);
  EXPECT_EQ(defectAt(59), Defect::HeaderCut);
  EXPECT_EQ(defectAt(106), Defect::HeaderCut);
}

TEST(BatchCheckUntrusted, RefusesEveryChangedBitOfAMagic) {
  for (const std::size_t magic : {std::size_t{0}, kFirstMagic, std::size_t{103}}) {
    for (std::size_t bit = 0; bit < 32; ++bit) {
      Bytes batch = twoRecords().bytes();
      batch[magic + bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
      EXPECT_FALSE(check(batch).ok()) << "magic at " << magic << ", bit " << bit;
    }
  }
}

TEST(BatchCheckUntrusted, RefusesAWrongMetaDataMagicAtItsOffset) {
  const BatchCheck found = check(twoRecords().set32(0, 0x1234).bytes());
  EXPECT_EQ(found.defect(), Defect::MetaDataMagic);
  EXPECT_EQ(found.text(),
            "wrong metadata magic at offset 0: found 0x00001234, expected 0xff00ee11");
}

TEST(BatchCheckUntrusted, RefusesAWrongHeaderMagicAtTheHeadersOffset) {
  const BatchCheck found = check(twoRecords().set32(103, 0).bytes());
  EXPECT_EQ(found.defect(), Defect::HeaderMagic);
  EXPECT_EQ(found.offset(), 59u);
}

TEST(BatchCheckUntrusted, RefusesACountAboveTheRecords) {
  for (const std::uint32_t count : {3U, 4U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
    const BatchCheck found = check(twoRecords().set32(kCount, count).bytes());
    EXPECT_EQ(found.defect(), Defect::HeaderCut) << count;
    EXPECT_EQ(found.text(), "record header cut at offset 107: found 0 bytes, expected 48 bytes");
  }
}

TEST(BatchCheckUntrusted, RefusesACountBelowTheRecords) {
  for (const std::uint32_t count : {0U, 1U}) {
    EXPECT_EQ(check(twoRecords().set32(kCount, count).bytes()).defect(), Defect::TrailingBytes);
  }
}

TEST(BatchCheckUntrusted, RefusesTrailingBytes) {
  const BatchCheck found = check(twoRecords().trailing(1).bytes());
  EXPECT_EQ(found.defect(), Defect::TrailingBytes);
  EXPECT_EQ(found.text(),
            "bytes after the last record at offset 107: found 1 bytes, expected 0 bytes");
}

TEST(BatchCheckUntrusted, RefusesALengthThatWouldWrap) {
  // 48 + length is 0, 47, 48 - 1 in 32 bits, and the distances back to earlier blocks.
  for (const std::uint32_t length :
       {0xffffffffU, 0xffffffd0U, 0xffffffcfU, 0xffffffc8U, 0x80000000U, 0x7fffffffU}) {
    const BatchCheck found = check(twoRecords().set32(kFirstLength, length).bytes());
    EXPECT_EQ(found.defect(), Defect::DataCut) << length;
    EXPECT_EQ(found.offset(), 8u) << length;
  }
}

TEST(BatchCheckUntrusted, RefusesALengthOneAboveWhatIsLeft) {
  const BatchBytes one = BatchBytes().record(1, 2, "abc");
  EXPECT_TRUE(check(one.bytes()).ok());
  const BatchCheck found = check(BatchBytes(one).set32(kFirstLength, 4).bytes());
  EXPECT_EQ(found.text(), "record data cut at offset 8: found 3 bytes, expected 4 bytes");
}

TEST(BatchCheckUntrusted, AcceptsNoPointerForNoBytes) {
  EXPECT_EQ(BatchCheck(nullptr, 0).defect(), Defect::MetaDataCut);
}

TEST(BatchCheckUntrusted, SaysWhatWasFoundAndExpected) {
  EXPECT_EQ(check(BatchBytes().bytes()).text(), "sound at offset 8");
  EXPECT_EQ(check(Bytes(3)).text(),
            "metadata block cut at offset 0: found 3 bytes, expected 8 bytes");
  EXPECT_EQ(check(twoRecords().set32(103, 0x1234).bytes()).text(),
            "wrong header magic at offset 59: found 0x00001234, expected 0xaabbccdd");
}
