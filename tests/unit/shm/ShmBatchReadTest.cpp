#include <algorithm>
#include <gtest/gtest.h>
#include <queue>
#include <sstream>
#include <string>

#include "korvex/ShmBatch.h"
#include "korvex/Status.h"
#include "support/OstreamFormat.h"
#include "support/ThrownError.h"
#include "unit/shm/BatchBuilders.h"

// The reader's half of a batch, and its printed forms.

using korvex::ShmBatch;

namespace {

using Entries = std::queue<ShmBatch::Entry>;

/// What a queue may hold from the batch before.
Entries leftOver() {
  Entries entries;
  entries.push(record(77, "left over"));
  return entries;
}

/// Type and data of every entry, as "1=abc 2=(null)".
std::string contentsOf(Entries entries) {
  std::string contents;
  for (; !entries.empty(); entries.pop()) {
    if (!contents.empty()) contents += ' ';
    contents += std::to_string(entries.front().header.type) + '=' + textOf(entries.front());
  }
  return contents;
}

void readAll(Entries& entries, const Bytes& bytes) {
  ShmBatch::getEntriesFromBuffer(entries, bytes.data(), bytes.size());
}

Bytes twoRecords() { return bytesOf(twoRecordsHex()); }

const char* const kZeroMagicText =
    "Could not deserialize qmx_shm_message from buffer because the magic value 0 is corrupt "
    "(expected=2864434397)";

template <typename Printable>
std::string printed(const Printable& value) {
  std::ostringstream stream;
  stream << value;
  return stream.str();
}

}  // namespace

TEST(ShmBatchGetEntry, ReadsEachRecordWhereItLies) {
  ShmBatch batch(200);
  batch.pushBack(record(1, "abc"));
  batch.pushBack(record(9, "12345"));
  EXPECT_EQ(batch.getEntry(0).header.type, 1u);
  EXPECT_EQ(batch.getEntry(0).data, batch.getRaw() + 56);
  EXPECT_EQ(batch.getEntry(1).header.type, 9u);
  EXPECT_EQ(batch.getEntry(1).data, batch.getRaw() + 107);
}

TEST(ShmBatchGetEntry, DataOfAnEmptyRecordIsNull) {
  ShmBatch batch(200);
  batch.pushBack(recordWithoutData(0));
  batch.pushBack({headerOf(2, 0), reinterpret_cast<const unsigned char*>("abc")});
  EXPECT_EQ(batch.getEntry(0).data, nullptr);
  EXPECT_EQ(batch.getEntry(1).data, nullptr);
}

TEST(ShmBatchGetEntry, RefusesTheIndexAfterTheLast) {
  ShmBatch batch(200);
  batch.pushBack(record(1, "abc"));
  batch.pushBack(record(2, ""));
  EXPECT_EQ(thrownBy([&] { batch.getEntry(2); }),
            (ThrownError{korvex::kStatusInvalidArgument,
                         "Cannot get entry because specified index 2 is outside the range of "
                         "available entries 2"}));
}

TEST(ShmBatchGetEntry, RefusesAnyIndexOfAnEmptyBatch) {
  EXPECT_EQ(thrownBy([] { ShmBatch(200).getEntry(0); }),
            (ThrownError{korvex::kStatusInvalidArgument,
                         "Cannot get entry because specified index 0 is outside the range of "
                         "available entries 0"}));
}

TEST(ShmBatchGetEntry, ComparesAll64BitsOfTheIndex) {
  ShmBatch batch(200);
  batch.pushBack(record(1, "abc"));
  EXPECT_EQ(thrownBy([&] { batch.getEntry(18446744073709551615u); }).message,
            "Cannot get entry because specified index 18446744073709551615 is outside the range "
            "of available entries 1");
  EXPECT_EQ(thrownBy([&] { batch.getEntry(4294967296u); }).status, korvex::kStatusInvalidArgument);
}

TEST(ShmBatchGetEntry, IndexIsReportedInPlainDigitsUnderAnyLocale) {
  const GlobalGrouping grouping;
  EXPECT_EQ(thrownBy([] { ShmBatch(200).getEntry(1000000); }).message,
            "Cannot get entry because specified index 1000000 is outside the range of available "
            "entries 0");
}

TEST(ShmBatchGetEntry, ForgetsWhatWasCleared) {
  ShmBatch batch(200);
  batch.pushBack(record(1, "abc"));
  batch.clear();
  EXPECT_EQ(thrownBy([&] { batch.getEntry(0); }).status, korvex::kStatusInvalidArgument);
}

TEST(ShmBatchGetEntry, RefusesAPlaceHolder) {
  ShmBatch batch(200);
  batch.pushBack(ShmBatch::Entry(nullptr));
  EXPECT_EQ(thrownBy([&] { batch.getEntry(0); }),
            (ThrownError{korvex::kStatusCorrupt, kZeroMagicText}));
}

TEST(ShmBatchGetEntry, RefusesWhatLiesBehindADamagedHeader) {
  ShmBatch batch(200);
  batch.pushBack(ShmBatch::Entry(nullptr));
  batch.pushBack(record(1, "abc"));
  EXPECT_EQ(thrownBy([&] { batch.getEntry(1); }),
            (ThrownError{korvex::kStatusCorrupt, kZeroMagicText}));
}

TEST(EntriesFromBuffer, AreReadInOrderFromHandWrittenBytes) {
  Entries entries;
  const Bytes bytes = twoRecords();
  readAll(entries, bytes);
  EXPECT_EQ(contentsOf(entries), "1=abc 2=(null)");
}

TEST(EntriesFromBuffer, PointIntoTheBuffer) {
  Entries entries;
  const Bytes bytes = twoRecords();
  readAll(entries, bytes);
  EXPECT_EQ(entries.front().data, bytes.data() + 56);
  EXPECT_EQ(entries.back().data, nullptr);
}

TEST(EntriesFromBuffer, AreReadAtAnyAlignment) {
  for (std::size_t offset = 0; offset < 8; ++offset) {
    const Bytes whole = twoRecords();
    Bytes bytes(offset, 0xee);
    bytes.insert(bytes.end(), whole.begin(), whole.end());
    Entries entries;
    ShmBatch::getEntriesFromBuffer(entries, bytes.data() + offset, whole.size());
    EXPECT_EQ(contentsOf(entries), "1=abc 2=(null)") << offset;
  }
}

TEST(EntriesFromBuffer, ReplaceWhatTheQueueHeld) {
  Entries entries = leftOver();
  const Bytes bytes = twoRecords();
  readAll(entries, bytes);
  EXPECT_EQ(contentsOf(entries), "1=abc 2=(null)");
}

TEST(EntriesFromBuffer, EmptyBatchEmptiesTheQueue) {
  Entries entries = leftOver();
  readAll(entries, bytesOf("ff00ee11 00000000"));
  EXPECT_TRUE(entries.empty());
}

TEST(EntriesFromBuffer, StopAtTheAnnouncedCount) {
  Bytes bytes = twoRecords();
  bytes[7] = 1;
  Entries entries;
  readAll(entries, bytes);
  EXPECT_EQ(contentsOf(entries), "1=abc");
}

// The walk believes the batch; whoever does not trust it checks first.
TEST(EntriesFromBuffer, TheSizeIsNotHeldAgainstTheWalk) {
  Entries entries;
  const Bytes bytes = twoRecords();
  ShmBatch::getEntriesFromBuffer(entries, bytes.data(), 8);
  EXPECT_EQ(contentsOf(entries), "1=abc 2=(null)");
}

TEST(EntriesFromBuffer, TooSmallABufferLeavesTheQueueAlone) {
  Entries entries = leftOver();
  EXPECT_EQ(thrownBy([&] { ShmBatch::getEntriesFromBuffer(entries, nullptr, 7); }),
            (ThrownError{korvex::kStatusInvalidArgument,
                         "Buffer size 7 is invalid because it is smaller than the minimum "
                         "required buffer size of 8"}));
  EXPECT_EQ(contentsOf(entries), "77=left over");
}

TEST(EntriesFromBuffer, DamagedMetaDataLeavesTheQueueAlone) {
  Entries entries = leftOver();
  Bytes bytes = twoRecords();
  bytes[0] = 0xfe;
  EXPECT_EQ(thrownBy([&] { readAll(entries, bytes); }),
            (ThrownError{korvex::kStatusCorrupt,
                         "Could not deserialize ShmBatch::MetaData from buffer because the magic "
                         "value 4261473809 is corrupt (expected=4278251025)"}));
  EXPECT_EQ(contentsOf(entries), "77=left over");
}

TEST(EntriesFromBuffer, DamagedFirstHeaderLeavesTheQueueEmpty) {
  Entries entries = leftOver();
  Bytes bytes = twoRecords();
  std::fill_n(bytes.begin() + 8 + 44, 4, static_cast<unsigned char>(0));
  EXPECT_EQ(thrownBy([&] { readAll(entries, bytes); }),
            (ThrownError{korvex::kStatusCorrupt, kZeroMagicText}));
  EXPECT_TRUE(entries.empty());
}

TEST(EntriesFromBuffer, DamagedLaterHeaderLeavesTheEntriesBeforeIt) {
  Entries entries = leftOver();
  Bytes bytes = twoRecords();
  bytes[59 + 47] = 0xdc;
  EXPECT_EQ(thrownBy([&] { readAll(entries, bytes); }),
            (ThrownError{korvex::kStatusCorrupt,
                         "Could not deserialize qmx_shm_message from buffer because the magic "
                         "value 2864434396 is corrupt (expected=2864434397)"}));
  EXPECT_EQ(contentsOf(entries), "1=abc");
}

TEST(EntriesFromBuffer, OfABatchAreItsEntries) {
  ShmBatch batch(300);
  batch.pushBack(record(1, "abc"));
  batch.pushBack(record(2, ""));
  batch.pushBack(record(1, "de"));
  Entries entries;
  ShmBatch::getEntriesFromBuffer(entries, batch.getRaw(), batch.getRawSize());
  EXPECT_EQ(contentsOf(entries), "1=abc 2=(null) 1=de");
}

TEST(EntryPrint, ShowsTypeLengthAndChecksum) {
  EXPECT_EQ(printed(record(1, "abc")), "type=1, len=3, crc=38600999");
}

TEST(EntryPrint, EmptyRecordEndsAfterItsLength) {
  EXPECT_EQ(printed(record(2, "")), "type=2, len=0");
}

TEST(EntryPrint, ChecksumOfNullDataIsOne) {
  EXPECT_EQ(printed(recordWithoutData(1)), "type=1, len=1, crc=1");
}

TEST(EntryPrint, LargestValuesAreNotNegative) {
  EXPECT_EQ(printed(ShmBatch::Entry(headerOf(4294967295, 4294967295), nullptr)),
            "type=4294967295, len=4294967295, crc=1");
}

TEST(EntryPrint, DigitsArePlainWhateverTheStreamIsSetTo) {
  const GlobalGrouping grouping;
  std::ostringstream stream = oddStream();
  stream << record(1000, "abc");
  EXPECT_EQ(stream.str(), "type=1000, len=3, crc=38600999");
}

TEST(EntryPrint, LeavesTheStreamsStateAlone) {
  std::ostringstream stream = oddStream();
  const auto before = stateOf(stream);
  EXPECT_EQ(&(stream << record(1, "abc")), &stream);
  EXPECT_EQ(stateOf(stream), before);
}

TEST(EntryPrint, WidthPadsNothingAndIsSpent) {
  std::ostringstream stream = oddStream();
  stream << record(1, "abc");
  EXPECT_EQ(stream.str(), "type=1, len=3, crc=38600999");
  EXPECT_EQ(stream.width(), 0);
}

TEST(ShmBatchPrint, EmptyBatchIsItsSizes) {
  EXPECT_EQ(printed(ShmBatch(8)), "ShmBatch: entries=0, bufferSize=8, used=8");
}

TEST(ShmBatchPrint, OneEntryFollowsTheSizes) {
  ShmBatch batch(64);
  batch.pushBack(record(1, "abc"));
  EXPECT_EQ(printed(batch),
            "ShmBatch: entries=1, bufferSize=64, used=59, [0]: type=1, len=3, crc=38600999");
}

TEST(ShmBatchPrint, EveryEntryIsNumbered) {
  ShmBatch batch(200);
  batch.pushBack(record(1, "abc"));
  batch.pushBack(record(2, ""));
  EXPECT_EQ(printed(batch),
            "ShmBatch: entries=2, bufferSize=200, used=107, [0]: type=1, len=3, crc=38600999, "
            "[1]: type=2, len=0");
}

TEST(ShmBatchPrint, DigitsArePlainWhateverTheStreamIsSetTo) {
  const GlobalGrouping grouping;
  std::ostringstream stream = oddStream();
  stream << ShmBatch(1000000);
  EXPECT_EQ(stream.str(), "ShmBatch: entries=0, bufferSize=1000000, used=8");
}

TEST(ShmBatchPrint, LeavesTheStreamsStateAlone) {
  std::ostringstream stream = oddStream();
  const ShmBatch batch(8);
  const auto before = stateOf(stream);
  EXPECT_EQ(&(stream << batch), &stream);
  EXPECT_EQ(stateOf(stream), before);
}

TEST(ShmBatchPrint, WidthPadsNothingAndIsSpent) {
  std::ostringstream stream = oddStream();
  stream << ShmBatch(8);
  EXPECT_EQ(stream.str(), "ShmBatch: entries=0, bufferSize=8, used=8");
  EXPECT_EQ(stream.width(), 0);
}

TEST(ShmBatchPrint, WidthIsSpentByARefusedBatchAsWell) {
  ShmBatch batch(200);
  batch.pushBack(ShmBatch::Entry(nullptr));
  std::ostringstream stream = oddStream();
  EXPECT_EQ(thrownBy([&] { stream << batch; }).status, korvex::kStatusCorrupt);
  EXPECT_EQ(stream.width(), 0);
}

TEST(ShmBatchPrint, PlaceHolderInTheBatchPrintsNothing) {
  ShmBatch batch(200);
  batch.pushBack(record(1, "abc"));
  batch.pushBack(ShmBatch::Entry(nullptr));
  std::ostringstream stream;
  EXPECT_EQ(thrownBy([&] { stream << batch; }),
            (ThrownError{korvex::kStatusCorrupt, kZeroMagicText}));
  EXPECT_EQ(stream.str(), "");
}
