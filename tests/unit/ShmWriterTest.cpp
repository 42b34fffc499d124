#include "korvex/ShmWriter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <qmx/trace.h>

#include <algorithm>
#include <boost/interprocess/exceptions.hpp>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>

#include "support/DaemonQueues.h"
#include "support/Hex.h"
#include "unit/PlatformDouble.h"

using korvex::qmx_shm_message_t;
using korvex::ShmBatch;
using korvex::ShmWriter;
using korvex_test::Bytes;
using korvex_test::DaemonQueues;
using korvex_test::hexOf;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned kTimeout = 60;
constexpr unsigned kStopTimeout = 30;

// As a timeout it is -1: a deadline in the past, so that a full queue is reported at once.
constexpr unsigned kPastDeadline = 4294967295U;

qmx_shm_message_t headerOf(std::uint32_t type, std::uint32_t len) {
  qmx_shm_message_t header;
  header.type = type;
  header.len = len;
  return header;
}

/// The printed form of each header in a batch: short, and every field shows.
std::vector<std::string> headersOf(const Bytes& batch) {
  std::queue<ShmBatch::Entry> entries;
  ShmBatch::getEntriesFromBuffer(entries, batch.data(), batch.size());
  std::vector<std::string> headers;
  for (; !entries.empty(); entries.pop()) {
    std::ostringstream text;
    text << entries.front().header;
    headers.push_back(text.str());
  }
  return headers;
}

void expectError(ov_status_t status, const std::string& message,
                 const std::function<void()>& call) {
  try {
    call();
    FAIL() << "nothing was thrown, expected status " << status;
  } catch (const Ov_ErrnoException& error) {
    EXPECT_EQ(error.getStatus(), status);
    EXPECT_EQ(error.getMessage(), message);
    EXPECT_EQ(error.getLocation(), "");
  }
}

class Writer : public testing::Test {
 protected:
  Writer() { platform_double::reset(); }
  ~Writer() override { platform_double::reset(); }

  ShmWriter& writer() { return *writer_; }
  void connect(DaemonQueues& queues, const std::string& name = "stream", bool benchmark = false) {
    writer_ = std::make_unique<ShmWriter>(name, queues.name(), kTimeout, kStopTimeout, benchmark);
  }

  /// An open writer whose open record has been taken away.
  void openOn(DaemonQueues& queues) {
    connect(queues);
    writer().open();
    queues.takeBatch();
  }

  /// What waits in the batch, as one message's headers.
  std::vector<std::string> flushedHeaders(DaemonQueues& queues) {
    writer().flush_shm_buffer(kTimeout);
    return headersOf(queues.takeBatch());
  }

  void destroyWriter() { writer_.reset(); }

  const Bytes data_ = Bytes(200000, 'x');

 private:
  std::unique_ptr<ShmWriter> writer_;
};

using WriterConstruction = Writer;
using WriterLifecycle = Writer;
using WriterFlush = Writer;
using WriterReply = Writer;
using WriterSegments = Writer;
using WriterTrace = Writer;
using WriterBenchmark = Writer;
using WriterLimits = Writer;

}  // namespace

TEST(ValidateTimeout, AcceptsTheBounds) {
  EXPECT_NO_THROW(korvex::validateTimeout(1));
  EXPECT_NO_THROW(korvex::validateTimeout(86400));
}

TEST(ValidateTimeout, RefusesZero) {
  expectError(9, "Invalid timeout, specified value 0 was less than minimum allowed value of 1",
              [] { korvex::validateTimeout(0); });
}

TEST(ValidateTimeout, RefusesMoreThanADay) {
  expectError(9,
              "Invalid timeout, specified value 86401 was more than maximum allowed value of 86400",
              [] { korvex::validateTimeout(86401); });
}

TEST(ValidateTimeout, PrintsTheLargestValueUnsigned) {
  expectError(
      9, "Invalid timeout, specified value 4294967295 was more than maximum allowed value of 86400",
      [] { korvex::validateTimeout(4294967295U); });
}

TEST(ResponseName, AppendsResponse) {
  EXPECT_EQ(korvex::getMessageQueueResponseName("orders"), "ordersResponse");
}

TEST_F(WriterConstruction, ChecksTheTimeoutBeforeItTouchesAQueue) {
  expectError(9, "Invalid timeout, specified value 0 was less than minimum allowed value of 1",
              [] { ShmWriter("s", "korvex-test-no-such-queue", 0, 0, false); });
}

TEST_F(WriterConstruction, AcceptsAnyStopTimeout) {
  DaemonQueues queues;
  EXPECT_NO_THROW(ShmWriter("s", queues.name(), 1, 0, false));
  EXPECT_NO_THROW(ShmWriter("s", queues.name(), 86400, 4294967295U, false));
}

TEST_F(WriterConstruction, MakesTheBatchAsLargeAsTheQueuesLargestMessage) {
  DaemonQueues queues(1234);
  platform_double::setTracing(true);
  connect(queues);
  EXPECT_THAT(platform_double::traceLines(), testing::Contains("ShmBatch: bufferSize=1234"));
}

TEST_F(WriterConstruction, RefusesAQueueWhoseMessagesHoldNoMetadata) {
  DaemonQueues queues(7);
  expectError(
      9,
      "Buffer size 7 is invalid because it is smaller than the minimum required buffer size of 8",
      [&] { connect(queues); });
}

TEST_F(WriterLifecycle, OpenSendsTheOpenRecordByteForByte) {
  DaemonQueues queues;
  connect(queues);
  writer().open();
  const auto message = queues.send().take();
  EXPECT_EQ(message.priority, 1u);
  EXPECT_EQ(hexOf(message.bytes),
            "ff00ee11 00000001 "           // metadata: magic, one entry
            "00000000 00000000 "           // type, len
            "00000000 00000000 "           // sequence
            "00000000 00000000 "           // segmentCount
            "00000001 00000000 "           // segmentEmpty, segState
            "00000000 00000000 00000000 "  // algParam1 to algParam3
            "aabbccdd");                   // magic
}

TEST_F(WriterLifecycle, OpenTwiceSendsOneRecord) {
  DaemonQueues queues;
  connect(queues);
  writer().open();
  writer().open();
  EXPECT_EQ(queues.send().waiting(), 1u);
}

TEST_F(WriterLifecycle, CloseWithoutOpenSendsNothing) {
  DaemonQueues queues;
  connect(queues);
  writer().close();
  EXPECT_EQ(queues.send().waiting(), 0u);
}

TEST_F(WriterLifecycle, CloseCarriesTheNextSequenceAndTheAlgorithm) {
  DaemonQueues queues;
  openOn(queues);
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 7, 8, 9);
  writer().close();
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(2,3,0,1,0,1,7,8,9,2864434397)"));
}

TEST_F(WriterLifecycle, CloseTakesEverythingBufferedAlong) {
  DaemonQueues queues;
  openOn(queues);
  writer().writeSegment(data_.data(), 3);
  writer().close();
  EXPECT_THAT(headersOf(queues.takeBatch()),
              ElementsAre("(2,1,3,0,0,0,0,0,0,2864434397)", "(3,3,0,0,0,0,0,0,0,2864434397)"));
  writer().close();
  EXPECT_EQ(queues.send().waiting(), 0u);
}

TEST_F(WriterLifecycle, CloseCountsASegmentThatWasNotEnded) {
  DaemonQueues queues;
  openOn(queues);
  writer().writeSegment(data_.data(), 3);
  writer().close();
  queues.takeBatch();
  writer().stop(false);
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(4,4,0,0,1,1,0,0,0,2864434397)"));
}

TEST_F(WriterLifecycle, StopWorksWithoutOpenAndChangesNeitherState) {
  DaemonQueues queues;
  connect(queues);
  writer().stop(true);
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(1,4,0,0,0,1,0,0,0,2864434397)"));
  writer().close();
  EXPECT_EQ(queues.send().waiting(), 0u) << "stop must not have opened the writer";
  writer().open();
  queues.takeBatch();
  writer().stop(false);
  queues.takeBatch();
  writer().close();
  EXPECT_EQ(queues.send().waiting(), 1u) << "stop must not have closed the writer";
}

TEST_F(WriterLifecycle, ReopeningRestartsTheNumbersButKeepsParametersOneAndThree) {
  DaemonQueues queues;
  openOn(queues);
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 7, 8, 9);
  writer().writeSegment(data_.data(), 3);
  writer().close();
  queues.takeBatch();
  writer().open();
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(0,0,0,0,0,1,7,0,9,2864434397)"));
}

TEST_F(WriterLifecycle, FailedOpenLeavesTheWriterClosedAndTheSequenceAlone) {
  DaemonQueues queues;
  connect(queues);
  queues.reply(7, "disk full");
  expectError(7, "disk full", [&] { writer().open(); });
  queues.takeBatch();
  expectError(44, "Could not write segment data because ShmWriter is not open",
              [&] { writer().writeSegment(data_.data(), 1); });
  writer().stop(false);
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(1,4,0,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterLifecycle, FailedCloseLeavesTheWriterOpenAndTheSequenceAdvanced) {
  DaemonQueues queues;
  openOn(queues);
  queues.reply(7, "disk full");
  expectError(7, "disk full", [&] { writer().close(); });
  queues.takeBatch();
  writer().close();
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(3,3,0,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterLifecycle, DestructionClosesAnOpenWriter) {
  DaemonQueues queues;
  openOn(queues);
  destroyWriter();
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(2,3,0,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterLifecycle, DestructionOfAClosedWriterSendsNothing) {
  DaemonQueues queues;
  connect(queues);
  destroyWriter();
  EXPECT_EQ(queues.send().waiting(), 0u);
}

TEST_F(WriterLifecycle, DestructionSwallowsTheErrorOfItsClose) {
  DaemonQueues queues;
  openOn(queues);
  queues.reply(7, "disk full");
  EXPECT_NO_THROW(destroyWriter());
  EXPECT_EQ(queues.response().waiting(), 0u) << "the close must have met the reply";
}

TEST_F(WriterLifecycle, QueuesAreLeftToTheirOwner) {
  DaemonQueues queues;
  connect(queues);
  destroyWriter();
  EXPECT_NO_THROW(connect(queues));
}

TEST_F(WriterFlush, SendsAnEmptyBatchToo) {
  DaemonQueues queues;
  connect(queues);
  writer().flush_shm_buffer(kTimeout);
  EXPECT_EQ(hexOf(queues.takeBatch()), "ff00ee11 00000000");
}

TEST_F(WriterFlush, TimedOutSendKeepsTheBatchForALaterOne) {
  DaemonQueues queues(4096, 1);
  connect(queues);
  writer().flush_shm_buffer(kTimeout);
  const qmx_shm_message_t header = headerOf(9, 3);
  writer().write_data(&header, data_.data(), kTimeout, false);
  expectError(15, "Timed out after waiting 4294967295s to send data to korvexd on stream stream",
              [&] { writer().flush_shm_buffer(kPastDeadline); });
  queues.takeBatch();
  EXPECT_THAT(flushedHeaders(queues), ElementsAre("(0,9,3,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterFlush, LeavesTheStreamOutOfTheTextWhenItHasNoName) {
  DaemonQueues queues(4096, 1);
  connect(queues, "");
  writer().flush_shm_buffer(kTimeout);
  expectError(15, "Timed out after waiting 0s to send data to korvexd",
              [&] { writer().flush_shm_buffer(0); });
}

TEST_F(WriterFlush, PastDeadlineStillSendsWhenThereIsRoom) {
  DaemonQueues queues;
  connect(queues);
  EXPECT_NO_THROW(writer().flush_shm_buffer(kPastDeadline));
  EXPECT_EQ(queues.send().waiting(), 1u);
}

TEST_F(WriterFlush, StopTimeoutOfAllOnesIsADeadlineInThePast) {
  DaemonQueues queues(4096, 1);
  ShmWriter stopping("s", queues.name(), kTimeout, kPastDeadline, false);
  stopping.flush_shm_buffer(kTimeout);
  expectError(15, "Timed out after waiting 4294967295s to send data to korvexd on stream s",
              [&] { stopping.stop(true); });
}

TEST_F(WriterReply, IsRaisedByTheNextFlushAfterTheBatchWasSent) {
  DaemonQueues queues;
  openOn(queues);
  writer().writeSegment(data_.data(), 3);
  queues.reply(28, "no space left");
  expectError(28, "no space left", [&] { writer().flush_shm_buffer(kTimeout); });
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(2,1,3,0,0,0,0,0,0,2864434397)"));
  EXPECT_THAT(flushedHeaders(queues), IsEmpty()) << "the batch must have been cleared";
}

TEST_F(WriterReply, OneIsTakenPerFlush) {
  DaemonQueues queues;
  connect(queues);
  queues.reply(0, "first");
  queues.reply(0, "second");
  writer().flush_shm_buffer(kTimeout);
  EXPECT_STREQ(writer().getResponse().message, "first");
  EXPECT_EQ(queues.response().waiting(), 1u);
}

TEST_F(WriterReply, WithStatusZeroIsKeptForTheCaller) {
  DaemonQueues queues;
  connect(queues);
  queues.reply(0, "stored");
  writer().flush_shm_buffer(kTimeout);
  writer().flush_shm_buffer(kTimeout);
  EXPECT_EQ(writer().getResponse().status, 0u);
  EXPECT_STREQ(writer().getResponse().message, "stored");
}

TEST_F(WriterReply, MayFillAllOfItsTextWithoutANul) {
  DaemonQueues queues;
  connect(queues);
  queues.reply(5, std::string(128, 'e'));
  expectError(5, std::string(128, 'e'), [&] { writer().flush_shm_buffer(kTimeout); });
}

TEST_F(WriterReply, ShorterThanTheRecordBringsNoTextOfAnEarlierOne) {
  DaemonQueues queues;
  connect(queues);
  queues.reply(0, "an earlier and much longer text");
  writer().flush_shm_buffer(kTimeout);
  const unsigned char four[] = {3, 0, 0, 0};
  queues.response().post(four, sizeof four);
  expectError(3, "", [&] { writer().flush_shm_buffer(kTimeout); });
}

TEST_F(WriterReply, LargerQueueThanTheRecordIsTheQueueLibrarysError) {
  DaemonQueues queues(4096, 4, 133);
  connect(queues);
  try {
    writer().flush_shm_buffer(kTimeout);
    FAIL() << "a reply of 133 bytes has no room in the record";
  } catch (const boost::interprocess::interprocess_exception& error) {
    EXPECT_EQ(error.get_error_code(), boost::interprocess::size_error);
  }
}

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
    return payload.empty() ? header : header + " " + hexOf(payload);
  };
  // 50 bytes are no multiple of four, so the groups are compared without their gaps.
  std::string expected =
      "ff00ee11 00000005" +
      record("00000001", "00000064", "00000002", "00000000", "00000000", Bytes(100, 0x5a)) +
      record("00000001", "00000032", "00000003", "00000000", "00000000", Bytes(50, 0x5a)) +
      record("00000002", "00000000", "00000004", "00000000", "00000000", {}) +
      record("00000001", "00000000", "00000005", "00000001", "00000001", {}) +
      record("00000002", "00000000", "00000006", "00000001", "00000001", {});
  std::string found = hexOf(queues.takeBatch());
  expected.erase(std::remove(expected.begin(), expected.end(), ' '), expected.end());
  found.erase(std::remove(found.begin(), found.end(), ' '), found.end());
  EXPECT_EQ(found, expected);
}

TEST_F(WriterSegments, AreRefusedWhenNotOpen) {
  DaemonQueues queues;
  connect(queues);
  expectError(44, "Could not write segment data because ShmWriter is not open",
              [&] { writer().writeSegment(data_.data(), 1); });
  expectError(44, "Could not end segment data because ShmWriter is not open",
              [&] { writer().endSegment(); });
  writer().stop(false);
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(1,4,0,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterSegments, UnknownAlgorithmStopsDataButNotTheEnd) {
  DaemonQueues queues;
  openOn(queues);
  writer().setSegmentAlg(static_cast<korvex_seg_state_t>(2), 0, 0, 0);
  expectError(44, "Could not write segment data because wrong algorithm has been set",
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

TEST_F(WriterSegments, LengthIsCutTo32BitsAndThenCountsAsNoData) {
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
  expectError(85,
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

TEST_F(WriterLimits, RecordThatFillsTheBatchExactlyIsStoredWithoutAFlush) {
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

TEST_F(WriterLimits, RecordTooLargeForAnyBatchFirstSendsAnEmptyOne) {
  DaemonQueues queues(8 + 48 + 100);
  connect(queues);
  const qmx_shm_message_t header = headerOf(9, 101);
  expectError(89,
              "Could not fit header (type=9) with data length 101 into the batch, even after batch "
              "has been flushed",
              [&] { writer().write_data(&header, data_.data(), kTimeout, false); });
  EXPECT_EQ(hexOf(queues.takeBatch()), "ff00ee11 00000000");
}

TEST_F(WriterLimits, LengthNear32BitsIsRefusedNotWrapped) {
  DaemonQueues queues(8 + 48 + 100);
  connect(queues);
  qmx_shm_message_t header = headerOf(9, 4294967295U);
  header.segState = KORVEX_SEG_STATE_UNLIMITED;
  EXPECT_THROW(writer().write_data(&header, data_.data(), kTimeout, false), Ov_ErrnoException);
  EXPECT_EQ(hexOf(queues.takeBatch()), "ff00ee11 00000000");
}

TEST_F(WriterLimits, AnnouncedDataThatIsNullIsRefused) {
  DaemonQueues queues;
  openOn(queues);
  expectError(9, "Invalid header; the specified length of data is 5 but the data pointer is NULL",
              [&] { writer().writeSegment(nullptr, 5); });
  EXPECT_THAT(flushedHeaders(queues), IsEmpty());
}

TEST_F(WriterBenchmark, DropsEveryRecordWithAWarning) {
  DaemonQueues queues;
  connect(queues, "stream", true);
  writer().open();
  writer().writeSegment(data_.data(), 10);
  writer().close();
  writer().stop(true);
  EXPECT_EQ(queues.send().waiting(), 0u);
  ASSERT_EQ(platform_double::calls().size(), 4u);
  EXPECT_EQ(platform_double::calls()[0].function, "WarningA");
  EXPECT_EQ(platform_double::calls()[0].code, -1);
  EXPECT_EQ(platform_double::calls()[0].text,
            "write_data: KORVEX_PERF_BENCHMARK_ENABLED is set to 1. This backup will fail. Dumping "
            "data..");
}

TEST_F(WriterBenchmark, ChecksTheSizeFirst) {
  DaemonQueues queues;
  connect(queues, "stream", true);
  writer().open();
  platform_double::reset();
  EXPECT_THROW(writer().writeSegment(data_.data(), 131073), Ov_ErrnoException);
  EXPECT_THAT(platform_double::calls(), IsEmpty());
}

TEST_F(WriterBenchmark, LeavesTheRedundancyOfSegmentEndsAlone) {
  DaemonQueues queues;
  connect(queues, "stream", true);
  writer().open();
  writer().endSegment();
  writer().endSegment();
  EXPECT_EQ(platform_double::calls().size(), 3u) << "no record was stored, so none was redundant";
}

TEST_F(WriterTrace, TellsTheStepsOfConstruction) {
  DaemonQueues queues;
  platform_double::setTracing(true);
  connect(queues);
  EXPECT_THAT(platform_double::traceLines(),
              ElementsAre("ShmWriter: enter", "ShmWriter: opening send message queue",
                          "ShmWriter: opening message response queue",
                          "ShmWriter: creating shm batch buffer", "ShmBatch: bufferSize=4096",
                          "ShmWriter: leave"));
}

TEST_F(WriterTrace, TellsTheStepsOfOpen) {
  DaemonQueues queues;
  connect(queues);
  platform_double::setTracing(true);
  writer().open();
  EXPECT_THAT(
      platform_double::traceLines(),
      ElementsAre("open: enter", "ShmWriter:open: korvex msgQueueName is " + queues.name() + " ",
                  "write_data: enter", "write_data: write header.type =0, len=0, timeout=60s",
                  "flush_shm_buffer: Sending shm batch of 1", "write_data: leave", "open: leave"));
}

TEST_F(WriterTrace, TellsOfARedundantSegmentEnd) {
  DaemonQueues queues;
  openOn(queues);
  writer().endSegment();
  platform_double::setTracing(true);
  writer().endSegment();
  EXPECT_THAT(platform_double::traceLines(),
              ElementsAre("endSegment: enter", "endSegment: ignoring redundant 2 header",
                          "endSegment: leave"));
}

TEST_F(WriterTrace, SetSegmentAlgIsSilent) {
  DaemonQueues queues;
  connect(queues);
  platform_double::setTracing(true);
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 1, 2, 3);
  EXPECT_THAT(platform_double::traceLines(), IsEmpty());
}

TEST_F(WriterTrace, DisabledScopeCostsOneFlagRead) {
  platform_double::reset();
  { const AutoTrace trace("scope"); }
  EXPECT_EQ(platform_double::flagReads(), 1u);
}
