#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <type_traits>
#include <vector>

#include "korvex/ShmBatch.h"
#include "korvex/Status.h"
#include "support/PlatformDouble.h"
#include "support/ThrownError.h"
#include "unit/shm/BatchBuilders.h"

// What the writer does with a batch. Reading and printing have a file of their own.

using korvex::qmx_shm_message_t;
using korvex::ShmBatch;

static_assert(!std::is_copy_constructible<ShmBatch>::value, "owns its buffer");
static_assert(!std::is_copy_assignable<ShmBatch>::value, "owns its buffer");
static_assert(!std::is_move_constructible<ShmBatch>::value, "owns its buffer");
static_assert(!std::is_convertible<unsigned long, ShmBatch>::value, "a size is no batch");
static_assert(!std::is_polymorphic<ShmBatch>::value, "binary interface");
static_assert(std::is_copy_constructible<ShmBatch::Entry>::value, "handed around by value");
static_assert(std::is_copy_assignable<ShmBatch::Entry>::value, "handed around by value");
static_assert(!std::is_convertible<const unsigned char*, ShmBatch::Entry>::value,
              "a pointer alone is a place holder, said aloud");
static_assert(!std::is_default_constructible<ShmBatch::Entry>::value, "has no meaning");
static_assert(sizeof(ShmBatch::Entry) == 56 && offsetof(ShmBatch::Entry, data) == 48,
              "binary interface");
static_assert(sizeof(ShmBatch::MetaData) == 8 && offsetof(ShmBatch::MetaData, magic) == 0 &&
                  offsetof(ShmBatch::MetaData, numEntries) == 4,
              "binary interface");

namespace {

class ShmBatchTest : public testing::Test {
 protected:
  ShmBatchTest() { korvex::test::platform_double::reset(); }
  ~ShmBatchTest() override { korvex::test::platform_double::reset(); }
};

using ShmBatchConstruction = ShmBatchTest;

/// The members as the binary interface fixes them.
struct KnownLayout {
  unsigned long bufferSize;
  unsigned char* raw;
  unsigned long usedSize;
  std::uint32_t magic;
  std::uint32_t numEntries;
  unsigned char* writePos;
};
static_assert(sizeof(ShmBatch) == sizeof(KnownLayout) && sizeof(KnownLayout) == 40,
              "binary interface");

KnownLayout membersOf(const ShmBatch& batch) {
  KnownLayout members;
  std::memcpy(&members, static_cast<const void*>(&batch), sizeof members);
  return members;
}

}  // namespace

TEST(BatchMetaData, StartsWithMagicAndNoEntries) {
  const ShmBatch::MetaData metaData;
  EXPECT_EQ(metaData.magic, 0xff00ee11u);
  EXPECT_EQ(metaData.numEntries, 0u);
  EXPECT_EQ(ShmBatch::MetaData::getSerializedSize(), 8u);
}

TEST(BatchMetaData, IsWrittenBigEndian) {
  ShmBatch::MetaData metaData;
  metaData.numEntries = 0x01020304;
  Bytes bytes(10, 0xee);
  EXPECT_EQ(metaData.serializeToBuffer(bytes.data() + 1), bytes.data() + 9);
  EXPECT_EQ(hexOf(bytes), hex("ee ff00ee11 01020304 ee"));
}

TEST(BatchMetaData, IsReadBigEndian) {
  const Bytes bytes = bytesOf("ee ff00ee11 01020304");
  ShmBatch::MetaData metaData;
  EXPECT_EQ(metaData.deserializeFromBuffer(bytes.data() + 1), bytes.data() + 9);
  EXPECT_EQ(metaData.magic, 0xff00ee11u);
  EXPECT_EQ(metaData.numEntries, 0x01020304u);
}

TEST(BatchMetaData, LittleEndianMagicIsRefusedAndReported) {
  const Bytes bytes = bytesOf("11ee00ff 01000000");
  EXPECT_EQ(thrownBy([&] { ShmBatch::MetaData().deserializeFromBuffer(bytes.data()); }),
            (ThrownError{korvex::kStatusCorrupt,
                         "Could not deserialize ShmBatch::MetaData from buffer because the magic "
                         "value 300810495 is corrupt (expected=4278251025)"}));
}

TEST(BatchMetaData, RefusedBlockKeepsBothFieldsRead) {
  const Bytes bytes = bytesOf("11ee00ff 01020304");
  ShmBatch::MetaData metaData;
  EXPECT_THROW(metaData.deserializeFromBuffer(bytes.data()), Ov_ErrnoException);
  EXPECT_EQ(metaData.magic, 0x11ee00ffu);
  EXPECT_EQ(metaData.numEntries, 0x01020304u);
}

TEST(BatchEntry, CopiesTheHeaderAndKeepsThePointer) {
  qmx_shm_message_t header = headerOf(7, 1);
  const unsigned char data = 'x';
  const ShmBatch::Entry entry(header, &data);
  header.type = 8;
  EXPECT_EQ(entry.header.type, 7u);
  EXPECT_EQ(entry.header.magic, 0xaabbccddu);
  EXPECT_EQ(entry.data, &data);
}

TEST(BatchEntry, PlaceHolderHasAllHeaderFieldsZero) {
  const unsigned char data = 'x';
  const ShmBatch::Entry entry(&data);
  unsigned char memory[48];
  std::memcpy(memory, &entry.header, sizeof memory);
  EXPECT_EQ(hexOf(memory, sizeof memory), std::string(96, '0'));
  EXPECT_EQ(entry.data, &data);
}

TEST_F(ShmBatchConstruction, RefusesSevenBytes) {
  EXPECT_EQ(thrownBy([] { ShmBatch batch(7); }),
            (ThrownError{korvex::kStatusInvalidArgument,
                         "Buffer size 7 is invalid because it is smaller than the minimum "
                         "required buffer size of 8"}));
}

TEST_F(ShmBatchConstruction, RefusesNoBytesAtAll) {
  EXPECT_EQ(thrownBy([] { ShmBatch batch(0); }).status, korvex::kStatusInvalidArgument);
}

TEST_F(ShmBatchConstruction, EightBytesHoldTheMetaDataAlone) {
  const ShmBatch batch(8);
  EXPECT_EQ(usedHexOf(batch), hex("ff00ee11 00000000"));
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(batch.getNumEntries(), 0u);
  EXPECT_FALSE(batch.canStore(record(0, "")));
}

TEST_F(ShmBatchConstruction, UsedSizeIsEightWhateverTheCapacity) {
  EXPECT_EQ(ShmBatch(4096).getRawSize(), 8u);
}

TEST_F(ShmBatchConstruction, FillsTheBufferWithZeros) {
  const ShmBatch batch(1000);
  EXPECT_EQ(hexOf(batch.getRaw(), 1000), hex("ff00ee11") + std::string(1992, '0'));
}

TEST_F(ShmBatchConstruction, MembersLieWhereTheyAlwaysHave) {
  ShmBatch batch(200);
  batch.pushBack(record(1, "abc"));
  const KnownLayout members = membersOf(batch);
  EXPECT_EQ(members.bufferSize, 200u);
  EXPECT_EQ(members.raw, batch.getRaw());
  EXPECT_EQ(members.usedSize, 59u);
  EXPECT_EQ(members.magic, 0xff00ee11u);
  EXPECT_EQ(members.numEntries, 1u);
  EXPECT_EQ(members.writePos, members.raw + 59);
}

TEST_F(ShmBatchConstruction, IsTracedBeforeTheSizeIsRefused) {
  korvex::test::platform_double::setTracing(true);
  EXPECT_THROW(ShmBatch(7), Ov_ErrnoException);
  ASSERT_EQ(korvex::test::platform_double::calls().size(), 1u);
  EXPECT_EQ(korvex::test::platform_double::calls()[0].function, "__TraceA");
  EXPECT_EQ(korvex::test::platform_double::calls()[0].format, "%s: bufferSize=%u");
  EXPECT_EQ(korvex::test::platform_double::calls()[0].text, "ShmBatch: bufferSize=7");
}

TEST_F(ShmBatchConstruction, IsSilentWhileTracingIsOff) {
  const ShmBatch batch(8);
  EXPECT_TRUE(korvex::test::platform_double::calls().empty());
}

TEST_F(ShmBatchConstruction, IsTheOnlyOperationThatTraces) {
  korvex::test::platform_double::setTracing(true);
  {
    ShmBatch batch(200);
    batch.pushBack(record(1, "abc"));
    batch.getEntry(0);
    batch.clear();
  }
  EXPECT_EQ(korvex::test::platform_double::traceLines(),
            std::vector<std::string>{"ShmBatch: bufferSize=200"});
}

TEST(ShmBatchSizeCheck, AcceptsEightAndMore) {
  EXPECT_NO_THROW(ShmBatch::validBufferSizeAssert(8));
  EXPECT_NO_THROW(ShmBatch::validBufferSizeAssert(0xffffffffffffffff));
}

TEST(ShmBatchSizeCheck, RefusesEverySmallerSize) {
  for (unsigned long size = 0; size < 8; ++size) {
    EXPECT_EQ(thrownBy([&] { ShmBatch::validBufferSizeAssert(size); }),
              (ThrownError{korvex::kStatusInvalidArgument,
                           "Buffer size " + std::to_string(size) +
                               " is invalid because it is smaller than the minimum required "
                               "buffer size of 8"}));
  }
}

// Whatever wrote over the block's magic: the next record puts all of the block right.
TEST(ShmBatchPushBack, WritesTheWholeMetaDataBlock) {
  ShmBatch batch(1000);
  const_cast<unsigned char*>(batch.getRaw())[1] = 0x77;
  batch.pushBack(record(1, "abc"));
  EXPECT_EQ(hexOf(batch.getRaw(), 8), hex("ff00ee11 00000001"));
}

TEST(ShmBatchPushBack, PacksRecordsBackToBack) {
  ShmBatch batch(200);
  batch.pushBack(record(1, "abc"));
  batch.pushBack(record(2, ""));
  EXPECT_EQ(usedHexOf(batch), twoRecordsHex());
  EXPECT_EQ(batch.getRawSize(), 107u);
  EXPECT_EQ(batch.getNumEntries(), 2u);
  EXPECT_FALSE(batch.empty());
}

TEST(ShmBatchPushBack, SecondHeaderFollowsTheFirstRecordsData) {
  ShmBatch batch(200);
  batch.pushBack(record(1, "abc"));
  batch.pushBack(record(9, "12345"));
  EXPECT_EQ(hexOf(batch.getRaw() + 59, 4), "00000009");
  EXPECT_EQ(hexOf(batch.getRaw() + 107, 5), "3132333435");
  EXPECT_EQ(batch.getRawSize(), 112u);
}

TEST(ShmBatchPushBack, EmptyRecordTakes48Bytes) {
  ShmBatch batch(200);
  batch.pushBack(recordWithoutData(0));
  EXPECT_EQ(batch.getRawSize(), 56u);
  EXPECT_EQ(batch.getNumEntries(), 1u);
}

TEST(ShmBatchPushBack, DataOfAnEmptyRecordIsNotLookedAt) {
  ShmBatch batch(56);
  batch.pushBack({headerOf(1, 0), reinterpret_cast<const unsigned char*>("abc")});
  EXPECT_EQ(batch.getRawSize(), 56u);
}

TEST(ShmBatchPushBack, AcceptsARecordThatFillsTheBuffer) {
  const std::string data(100, 'x');
  ShmBatch batch(8 + 48 + 100);
  batch.pushBack(record(1, data.c_str()));
  EXPECT_EQ(batch.getRawSize(), 156u);
  EXPECT_FALSE(batch.canStore(record(0, "")));
}

TEST(ShmBatchPushBack, RefusesWhatDoesNotFit) {
  const std::string data(101, 'x');
  ShmBatch batch(8 + 48 + 100);
  EXPECT_EQ(thrownBy([&] { batch.pushBack(record(1, data.c_str())); }),
            (ThrownError{
                4, "Could not add new batch entry because there is no room for it in the buffer"}));
}

TEST(ShmBatchPushBack, RefusedForRoomLeavesEveryByteAlone) {
  ShmBatch batch(8 + 48 + 3 + 47);
  batch.pushBack(record(1, "abc"));
  const std::string before = hexOf(batch.getRaw(), 106);
  EXPECT_EQ(thrownBy([&] { batch.pushBack(record(2, "")); }).status, korvex::kStatusNoRoom);
  EXPECT_EQ(hexOf(batch.getRaw(), 106), before);
  EXPECT_EQ(batch.getRawSize(), 59u);
  EXPECT_EQ(batch.getNumEntries(), 1u);
}

TEST(ShmBatchPushBack, RefusesDataThatIsAnnouncedButNull) {
  ShmBatch batch(200);
  EXPECT_EQ(thrownBy([&] { batch.pushBack(recordWithoutData(3)); }),
            (ThrownError{korvex::kStatusInvalidArgument,
                         "Invalid header; the specified length of data is 3 but the data pointer "
                         "is NULL"}));
}

TEST(ShmBatchPushBack, LooksForRoomBeforeItLooksAtTheData) {
  ShmBatch batch(56);
  EXPECT_EQ(thrownBy([&] { batch.pushBack(recordWithoutData(1)); }).status, korvex::kStatusNoRoom);
  EXPECT_EQ(hexOf(batch.getRaw(), 56), hex("ff00ee11") + std::string(104, '0'));
}

// The header goes in before the data pointer is checked: odd, relied upon, kept.
TEST(ShmBatchPushBack, RefusedNullDataLeavesItsHeaderBehind) {
  ShmBatch batch(200);
  batch.pushBack(record(2, ""));
  EXPECT_THROW(batch.pushBack(recordWithoutData(3)), Ov_ErrnoException);
  EXPECT_EQ(hexOf(batch.getRaw() + 56, 48), hex(kSegmentHeader));
  EXPECT_EQ(usedHexOf(batch), hex(std::string("ff00ee11 00000001") + kSegmentEndHeader));
  EXPECT_EQ(membersOf(batch).writePos, batch.getRaw() + 56);
}

TEST(ShmBatchPushBack, OverwritesTheStrayHeaderOfARefusedRecord) {
  ShmBatch batch(200);
  batch.pushBack(record(1, "abc"));
  EXPECT_THROW(batch.pushBack(recordWithoutData(3)), Ov_ErrnoException);
  batch.pushBack(record(2, ""));
  EXPECT_EQ(usedHexOf(batch), twoRecordsHex());
}

TEST(ShmBatchPushBack, StoresAPlaceHolderUnseen) {
  ShmBatch batch(56);
  batch.pushBack(ShmBatch::Entry(nullptr));
  EXPECT_EQ(usedHexOf(batch), hex("ff00ee11 00000001") + std::string(96, '0'));
}

TEST(ShmBatchRoom, CountsHeaderAndData) {
  const ShmBatch batch(8 + 48 + 3);
  EXPECT_TRUE(batch.canStore(record(1, "abc")));
  EXPECT_FALSE(batch.canStore(record(1, "abcd")));
}

TEST(ShmBatchRoom, DoesNotLookAtTheData) {
  EXPECT_TRUE(ShmBatch(59).canStore(recordWithoutData(3)));
}

TEST(ShmBatchRoom, BelowOneHeaderHoldsNothing) {
  EXPECT_FALSE(ShmBatch(55).canStore(record(0, "")));
  EXPECT_TRUE(ShmBatch(56).canStore(record(0, "")));
}

// Each of these lengths plus 48 would be a small number in 32 bits.
TEST(ShmBatchRoom, LengthsNearFourGigabytesDoNotWrap) {
  ShmBatch batch(4096);
  const unsigned char data = 'x';
  for (const std::uint32_t length : {0xffffffd0u, 0xffffffd1u, 0xfffffff0u, 0xffffffffu}) {
    const ShmBatch::Entry entry(headerOf(1, length), &data);
    EXPECT_FALSE(batch.canStore(entry)) << length;
    EXPECT_EQ(thrownBy([&] { batch.pushBack(entry); }).status, korvex::kStatusNoRoom) << length;
  }
  EXPECT_EQ(batch.getRawSize(), 8u);
}

TEST(ShmBatchClear, LeavesTheOldRecordsBehindTheMetaData) {
  ShmBatch batch(107);
  batch.pushBack(record(1, "abc"));
  batch.pushBack(record(2, ""));
  batch.clear();
  EXPECT_EQ(hexOf(batch.getRaw(), 107), hex("ff00ee11 00000000") + twoRecordsHex().substr(16));
}

TEST(ShmBatchClear, MakesTheBatchEmpty) {
  ShmBatch batch(200);
  batch.pushBack(record(1, "abc"));
  batch.clear();
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(batch.getRawSize(), 8u);
  EXPECT_EQ(batch.getNumEntries(), 0u);
}

TEST(ShmBatchClear, NextRecordStartsAfterTheMetaDataAgain) {
  ShmBatch batch(107);
  batch.pushBack(record(7, "previous batch"));
  batch.clear();
  batch.pushBack(record(1, "abc"));
  batch.pushBack(record(2, ""));
  EXPECT_EQ(usedHexOf(batch), twoRecordsHex());
}

TEST(ShmBatchClear, DoesNothingToAnEmptyBatch) {
  ShmBatch batch(8);
  batch.clear();
  EXPECT_EQ(usedHexOf(batch), hex("ff00ee11 00000000"));
}
