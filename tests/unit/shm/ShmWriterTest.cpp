#include <boost/interprocess/exceptions.hpp>
#include <qmx/trace.h>

#include "korvex/ShmWriter.h"
#include "korvex/Status.h"
#include "support/QueueFields.h"
#include "support/SharedObject.h"
#include "unit/shm/WriterFixture.h"

using korvex::qmx_shm_message_t;
using korvex::ShmWriter;
using korvex::test::DaemonQueues;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace korvex::test;

namespace {

using WriterConstruction = Writer;
using WriterLifecycle = Writer;
using WriterFlush = Writer;
using WriterReply = Writer;
using WriterTrace = Writer;
using WriterBenchmark = Writer;

}  // namespace

TEST(ResponseName, AppendsResponse) {
  EXPECT_EQ(korvex::getMessageQueueResponseName("orders"), "ordersResponse");
}

TEST_F(WriterConstruction, MakesTheBatchAsLargeAsTheLargestMessage) {
  DaemonQueues queues(1234);
  korvex::test::platform_double::setTracing(true);
  connect(queues);
  EXPECT_THAT(korvex::test::platform_double::traceLines(),
              testing::Contains("ShmBatch: bufferSize=1234"));
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
  EXPECT_EQ(hexOf(message.bytes), hex("ff00ee11 00000001 "           // metadata: magic, one entry
                                      "00000000 00000000 "           // type, len
                                      "00000000 00000000 "           // sequence
                                      "00000000 00000000 "           // segmentCount
                                      "00000001 00000000 "           // segmentEmpty, segState
                                      "00000000 00000000 00000000 "  // algParam1 to algParam3
                                      "aabbccdd"));                  // magic
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

TEST_F(WriterLifecycle, ReopeningRestartsNumbersButKeepsParametersOneAndThree) {
  DaemonQueues queues;
  openOn(queues);
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 7, 8, 9);
  writer().writeSegment(data_.data(), 3);
  writer().close();
  queues.takeBatch();
  writer().open();
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(0,0,0,0,0,1,7,0,9,2864434397)"));
}

TEST_F(WriterLifecycle, FailedOpenLeavesItClosedAndTheSequenceAlone) {
  DaemonQueues queues;
  connect(queues);
  queues.reply(7, "disk full");
  expectError(7, "disk full", [&] { writer().open(); });
  queues.takeBatch();
  expectError(korvex::kStatusWrongState,
              "Could not write segment data because ShmWriter is not open",
              [&] { writer().writeSegment(data_.data(), 1); });
  writer().stop(false);
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(1,4,0,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterLifecycle, FailedCloseLeavesItOpenAndTheSequenceAdvanced) {
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
  EXPECT_EQ(hexOf(queues.takeBatch()), hex("ff00ee11 00000000"));
}

TEST_F(WriterFlush, TimedOutSendKeepsTheBatchForLater) {
  DaemonQueues queues(4096, 1);
  connect(queues);
  writer().flush_shm_buffer(kTimeout);
  const qmx_shm_message_t header = headerOf(9, 3);
  writer().write_data(&header, data_.data(), kTimeout, false);
  expectError(korvex::kStatusTimedOut,
              "Timed out after waiting 4294967295s to send data to korvexd on stream stream",
              [&] { writer().flush_shm_buffer(kPastDeadline); });
  queues.takeBatch();
  EXPECT_THAT(flushedHeaders(queues), ElementsAre("(0,9,3,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterFlush, LeavesANamelessStreamOutOfTheText) {
  DaemonQueues queues(4096, 1);
  connect(queues, "");
  writer().flush_shm_buffer(kTimeout);
  expectError(korvex::kStatusTimedOut, "Timed out after waiting 0s to send data to korvexd",
              [&] { writer().flush_shm_buffer(0); });
}

TEST_F(WriterFlush, PastDeadlineStillSendsWhenThereIsRoom) {
  DaemonQueues queues;
  connect(queues);
  EXPECT_NO_THROW(writer().flush_shm_buffer(kPastDeadline));
  EXPECT_EQ(queues.send().waiting(), 1u);
}

TEST_F(WriterFlush, StopTimeoutOfAllOnesHasAlreadyPassed) {
  DaemonQueues queues(4096, 1);
  ShmWriter stopping("s", queues.name(), kTimeout, kPastDeadline, false);
  stopping.flush_shm_buffer(kTimeout);
  expectError(korvex::kStatusTimedOut,
              "Timed out after waiting 4294967295s to send data to korvexd on stream s",
              [&] { stopping.stop(true); });
}

TEST_F(WriterReply, IsRaisedByTheFlushThatFollows) {
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

TEST_F(WriterReply, ShorterThanTheRecordBringsNoOlderText) {
  DaemonQueues queues;
  connect(queues);
  queues.reply(0, "an earlier and much longer text");
  writer().flush_shm_buffer(kTimeout);
  const std::uint32_t status = 3;
  queues.response().post(&status, sizeof status);
  expectError(3, "", [&] { writer().flush_shm_buffer(kTimeout); });
}

TEST_F(WriterReply, LargerQueueThanTheRecordIsALibraryError) {
  DaemonQueues queues(4096, 4, 133);
  connect(queues);
  try {
    writer().flush_shm_buffer(kTimeout);
    FAIL() << "a reply of 133 bytes has no room in the record";
  } catch (const boost::interprocess::interprocess_exception& error) {
    EXPECT_EQ(error.get_error_code(), boost::interprocess::size_error);
  }
}

TEST_F(WriterBenchmark, DropsEveryRecordWithAWarning) {
  DaemonQueues queues;
  connect(queues, "stream", true);
  writer().open();
  writer().writeSegment(data_.data(), 10);
  writer().close();
  writer().stop(true);
  EXPECT_EQ(queues.send().waiting(), 0u);
  ASSERT_EQ(korvex::test::platform_double::calls().size(), 4u);
  EXPECT_EQ(korvex::test::platform_double::calls()[0].function, "WarningA");
  EXPECT_EQ(korvex::test::platform_double::calls()[0].code, -1);
  EXPECT_EQ(korvex::test::platform_double::calls()[0].text,
            "write_data: KORVEX_PERF_BENCHMARK_ENABLED is set to 1. This backup will fail. Dumping "
            "data..");
}

TEST_F(WriterBenchmark, ChecksTheSizeFirst) {
  DaemonQueues queues;
  connect(queues, "stream", true);
  writer().open();
  korvex::test::platform_double::reset();
  EXPECT_THROW(writer().writeSegment(data_.data(), 131073), Ov_ErrnoException);
  EXPECT_THAT(korvex::test::platform_double::calls(), IsEmpty());
}

TEST_F(WriterBenchmark, LeavesTheRedundancyOfSegmentEndsAlone) {
  DaemonQueues queues;
  connect(queues, "stream", true);
  writer().open();
  writer().endSegment();
  writer().endSegment();
  EXPECT_EQ(korvex::test::platform_double::calls().size(), 3u)
      << "no record was stored, so none was redundant";
}

TEST_F(WriterTrace, TellsTheStepsOfConstruction) {
  DaemonQueues queues;
  korvex::test::platform_double::setTracing(true);
  connect(queues);
  EXPECT_THAT(korvex::test::platform_double::traceLines(),
              ElementsAre("ShmWriter: enter", "ShmWriter: opening send message queue",
                          "ShmWriter: opening message response queue",
                          "ShmWriter: creating shm batch buffer", "ShmBatch: bufferSize=4096",
                          "ShmWriter: leave"));
}

TEST_F(WriterTrace, TellsTheStepsOfOpen) {
  DaemonQueues queues;
  connect(queues);
  korvex::test::platform_double::setTracing(true);
  writer().open();
  EXPECT_THAT(
      korvex::test::platform_double::traceLines(),
      ElementsAre("open: enter", "ShmWriter:open: korvex msgQueueName is " + queues.name() + " ",
                  "write_data: enter", "write_data: write header.type =0, len=0, timeout=60s",
                  "flush_shm_buffer: Sending shm batch of 1", "write_data: leave", "open: leave"));
}

TEST_F(WriterTrace, TellsOfASegmentAndItsEnd) {
  DaemonQueues queues;
  openOn(queues);
  korvex::test::platform_double::setTracing(true);
  writer().writeSegment(data_.data(), 3);
  writer().endSegment();
  EXPECT_THAT(
      korvex::test::platform_double::traceLines(),
      ElementsAre("writeSegment: enter", "write_data: enter",
                  "write_data: write header.type =1, len=3, timeout=60s", "write_data: leave",
                  "writeSegment: leave", "endSegment: enter", "write_data: enter",
                  "write_data: write header.type =2, len=0, timeout=60s", "write_data: leave",
                  "endSegment: leave"));
}

TEST_F(WriterTrace, TellsOfARedundantSegmentEnd) {
  DaemonQueues queues;
  openOn(queues);
  writer().endSegment();
  korvex::test::platform_double::setTracing(true);
  writer().endSegment();
  EXPECT_THAT(korvex::test::platform_double::traceLines(),
              ElementsAre("endSegment: enter", "endSegment: ignoring redundant 2 header",
                          "endSegment: leave"));
}

TEST_F(WriterTrace, SetSegmentAlgIsSilent) {
  DaemonQueues queues;
  connect(queues);
  korvex::test::platform_double::setTracing(true);
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 1, 2, 3);
  EXPECT_THAT(korvex::test::platform_double::traceLines(), IsEmpty());
}

TEST_F(WriterTrace, DisabledScopeCostsOneFlagRead) {
  korvex::test::platform_double::reset();
  { const AutoTrace trace("scope"); }
  EXPECT_EQ(korvex::test::platform_double::flagReads(), 1u);
}

// The batch is on its way: what is not known of the reply queue yet must not fail the call.
TEST_F(WriterReply, QueueInMidChangeIsLookedAtLater) {
  DaemonQueues queues;
  connect(queues);
  const korvex::test::QueueLock lock(queues.response().name());
  ::pthread_mutex_lock(lock.mutex());
  lock.field(korvex::test::kFirstMessageAt).store(4);
  EXPECT_NO_THROW(writer().open());
  lock.field(korvex::test::kFirstMessageAt).store(0);
  ::pthread_mutex_unlock(lock.mutex());
  EXPECT_EQ(queues.send().waiting(), 1u);
  queues.reply(7, "late");
  expectError(7, "late", [&] { writer().close(); });
}
