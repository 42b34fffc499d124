#include "korvex/ShmWriter.h"
#include "korvex/Status.h"
#include "unit/shm/WriterFixture.h"

using korvex::qmx_shm_message_t;
using korvex::ShmWriter;
using korvex::test::DaemonQueues;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace korvex::test;

namespace {

using WriterSegments = Writer;
using WriterLimits = Writer;

}  // namespace

// The documented life of a stream, every byte of it as it lies in the queue.
TEST_F(WriterSegments, WorkedSequenceByteForByte) {
  DaemonQueues queues;
  openOn(queues);
  const Bytes data(100, 0x5a);
  writer().writeSegment(data.data(), 100);
  writer().writeSegment(data.data(), 50);
  writer().endSegment();
  writer().endSegment();
  writer().writeSegment(data.data(), 0);
  writer().endSegment();
  writer().flush_shm_buffer(kTimeout);

  const auto record = [](const char* type, const char* len, const char* sequence, const char* count,
                         const char* empty, const Bytes& payload) {
    const std::string header = std::string(type) + " " + len + " 00000000 " + sequence +
                               " 00000000 " + count + " " + empty +
                               " 00000000 00000000 00000000 00000000 aabbccdd";
    return header + hexOf(payload);
  };
  EXPECT_EQ(
      hexOf(queues.takeBatch()),
      hex("ff00ee11 00000005" +
          record("00000001", "00000064", "00000002", "00000000", "00000000", Bytes(100, 0x5a)) +
          record("00000001", "00000032", "00000003", "00000000", "00000000", Bytes(50, 0x5a)) +
          record("00000002", "00000000", "00000004", "00000000", "00000000", {}) +
          record("00000001", "00000000", "00000005", "00000001", "00000001", {}) +
          record("00000002", "00000000", "00000006", "00000001", "00000001", {})));
}

TEST_F(WriterSegments, AreRefusedWhenNotOpen) {
  DaemonQueues queues;
  connect(queues);
  expectError(korvex::kStatusWrongState,
              "Could not write segment data because ShmWriter is not open",
              [&] { writer().writeSegment(data_.data(), 1); });
  expectError(korvex::kStatusWrongState, "Could not end segment data because ShmWriter is not open",
              [&] { writer().endSegment(); });
  writer().stop(false);
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(1,4,0,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterSegments, UnknownAlgorithmStopsDataButNotTheEnd) {
  DaemonQueues queues;
  openOn(queues);
  writer().setSegmentAlg(static_cast<korvex_seg_state_t>(2), 0, 0, 0);
  expectError(korvex::kStatusWrongState,
              "Could not write segment data because wrong algorithm has been set",
              [&] { writer().writeSegment(data_.data(), 1); });
  writer().endSegment();
  EXPECT_THAT(flushedHeaders(queues), ElementsAre("(2,2,0,2,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterSegments, AlgorithmMayChangeWithinASegment) {
  DaemonQueues queues;
  openOn(queues);
  writer().writeSegment(data_.data(), 1);
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 0, 0, 0);
  writer().writeSegment(data_.data(), 1);
  writer().setSegmentAlg(KORVEX_SEG_STATE_LIMITED, 0, 0, 0);
  EXPECT_NO_THROW(writer().writeSegment(data_.data(), 1));
  EXPECT_EQ(flushedHeaders(queues).size(), 3u);
}

TEST_F(WriterSegments, ParametersAreCutTo32Bits) {
  DaemonQueues queues;
  openOn(queues);
  writer().setSegmentAlg(KORVEX_SEG_STATE_LIMITED, 4294967297, 1, 2);
  writer().writeSegment(data_.data(), 1);
  EXPECT_THAT(flushedHeaders(queues), ElementsAre("(2,1,1,0,0,0,1,1,2,2864434397)"));
}

TEST_F(WriterSegments, EndDirectlyAfterOpenIsWritten) {
  DaemonQueues queues;
  openOn(queues);
  writer().endSegment();
  writer().writeSegment(data_.data(), 1);
  EXPECT_THAT(flushedHeaders(queues),
              ElementsAre("(2,2,0,0,0,1,0,0,0,2864434397)", "(3,1,1,0,0,0,0,0,0,2864434397)"));
}

TEST_F(WriterSegments, EndIsRedundantAfterAnyEndRecordOnly) {
  DaemonQueues queues;
  openOn(queues);
  const qmx_shm_message_t directEnd = headerOf(2, 0);
  writer().write_data(&directEnd, nullptr, kTimeout, false);
  writer().endSegment();
  const qmx_shm_message_t directOther = headerOf(77, 0);
  writer().write_data(&directOther, nullptr, kTimeout, false);
  writer().endSegment();
  EXPECT_THAT(flushedHeaders(queues),
              ElementsAre("(0,2,0,0,0,1,0,0,0,2864434397)", "(0,77,0,0,0,1,0,0,0,2864434397)",
                          "(2,2,0,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterSegments, LengthWithoutLow32BitsCountsAsNoData) {
  DaemonQueues queues;
  openOn(queues);
  writer().writeSegment(data_.data(), 4294967296);
  EXPECT_THAT(flushedHeaders(queues), ElementsAre("(2,1,0,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterSegments, MaximumSizeNeedsNoWriter) {
  EXPECT_EQ(ShmWriter::getMaxSegmentSize(), 131072u);
}

TEST_F(WriterLimits, LargestLimitedRecordPassesAndTheNextDoesNot) {
  DaemonQueues queues(200000);
  openOn(queues);
  EXPECT_NO_THROW(writer().writeSegment(data_.data(), 131072));
  expectError(korvex::kStatusTooLarge,
              "Segment too large error.  Received segment of size 131073 bytes, but the maximum "
              "allowed segment size is 131072 bytes",
              [&] { writer().writeSegment(data_.data(), 131073); });
  EXPECT_THAT(flushedHeaders(queues), ElementsAre("(2,1,131072,0,0,0,0,0,0,2864434397)"));
  writer().endSegment();
  EXPECT_THAT(flushedHeaders(queues), ElementsAre("(4,2,0,0,0,0,0,0,0,2864434397)"))
      << "the refused record has used up its number and counts as data";
}

TEST_F(WriterLimits, UnlimitedRecordIsBoundedByTheBatchOnly) {
  DaemonQueues queues(200000);
  openOn(queues);
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 0, 0, 0);
  EXPECT_NO_THROW(writer().writeSegment(data_.data(), 131073));
}

TEST_F(WriterLimits, SegmentStateOtherThanOneIsLimited) {
  DaemonQueues queues(200000);
  connect(queues);
  qmx_shm_message_t header = headerOf(9, 131073);
  header.segState = 2;
  EXPECT_THROW(writer().write_data(&header, data_.data(), kTimeout, false), Ov_ErrnoException);
}

TEST_F(WriterLimits, RecordThatFillsTheBatchNeedsNoFlush) {
  DaemonQueues queues(8 + 48 + 100);
  connect(queues);
  const qmx_shm_message_t header = headerOf(9, 100);
  writer().write_data(&header, data_.data(), kTimeout, false);
  EXPECT_EQ(queues.send().waiting(), 0u);
  EXPECT_EQ(flushedHeaders(queues).size(), 1u);
}

TEST_F(WriterLimits, RecordThatDoesNotFitFlushesTheEarlierOnes) {
  DaemonQueues queues(8 + 48 + 100);
  connect(queues);
  const qmx_shm_message_t first = headerOf(8, 60);
  const qmx_shm_message_t second = headerOf(9, 0);
  writer().write_data(&first, data_.data(), kTimeout, false);
  writer().write_data(&second, nullptr, kTimeout, false);
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(0,8,60,0,0,1,0,0,0,2864434397)"));
  EXPECT_THAT(flushedHeaders(queues), ElementsAre("(0,9,0,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterLimits, TooLargeARecordFirstSendsAnEmptyBatch) {
  DaemonQueues queues(8 + 48 + 100);
  connect(queues);
  const qmx_shm_message_t header = headerOf(9, 101);
  expectError(korvex::kStatusDoesNotFit,
              "Could not fit header (type=9) with data length 101 into the batch, even after batch "
              "has been flushed",
              [&] { writer().write_data(&header, data_.data(), kTimeout, false); });
  EXPECT_EQ(hexOf(queues.takeBatch()), hex("ff00ee11 00000000"));
}

TEST_F(WriterLimits, LengthNear32BitsIsRefusedNotWrapped) {
  DaemonQueues queues(8 + 48 + 100);
  connect(queues);
  qmx_shm_message_t header = headerOf(9, 4294967295U);
  header.segState = KORVEX_SEG_STATE_UNLIMITED;
  EXPECT_THROW(writer().write_data(&header, data_.data(), kTimeout, false), Ov_ErrnoException);
  EXPECT_EQ(hexOf(queues.takeBatch()), hex("ff00ee11 00000000"));
}

TEST_F(WriterLimits, AnnouncedDataThatIsNullIsRefused) {
  DaemonQueues queues;
  openOn(queues);
  expectError(korvex::kStatusInvalidArgument,
              "Invalid header; the specified length of data is 5 but the data pointer is NULL",
              [&] { writer().writeSegment(nullptr, 5); });
  EXPECT_THAT(flushedHeaders(queues), IsEmpty());
}
