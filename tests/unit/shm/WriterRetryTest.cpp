// What a producer may do after a timeout, as the writer's header says.

#include "korvex/Status.h"
#include "unit/shm/WriterFixture.h"

using korvex::qmx_shm_message_t;
using korvex::test::DaemonQueues;
using korvex::test::headerOf;
using korvex::test::kPastDeadline;
using korvex::test::kTimeout;
using testing::ElementsAre;

namespace {

/// A writer whose send queue is full: one message, of one record with three bytes at most.
class WriterRetry : public korvex::test::Writer {
 protected:
  WriterRetry() {
    connect(queues_);
    writer().flush_shm_buffer(kTimeout);
  }

  void expectTimeout(const std::function<void()>& call) {
    EXPECT_EQ(thrownBy(call).status, korvex::kStatusTimedOut);
  }

  void expectTimeoutOf(std::uint32_t type, std::uint32_t length) {
    const qmx_shm_message_t header = headerOf(type, length);
    expectTimeout([&] { writer().write_data(&header, data_.data(), kPastDeadline, true); });
  }

  std::vector<std::string> sentByAFlush() {
    queues_.takeBatch();
    return flushedHeaders(queues_);
  }

  DaemonQueues queues_{8 + 2 * 48 + 3, 1};
};

}  // namespace

TEST_F(WriterRetry, RecordWithRoomIsSentByTheNextFlush) {
  expectTimeoutOf(9, 3);
  EXPECT_THAT(sentByAFlush(), ElementsAre("(0,9,3,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterRetry, SameCallAgainAppendsASecondRecord) {
  expectTimeoutOf(9, 0);
  expectTimeoutOf(9, 0);
  EXPECT_THAT(sentByAFlush(),
              ElementsAre("(0,9,0,0,0,1,0,0,0,2864434397)", "(0,9,0,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterRetry, RecordWithoutRoomIsNotInTheBatch) {
  expectTimeoutOf(7, 3);
  expectTimeoutOf(8, 3);
  EXPECT_THAT(sentByAFlush(), ElementsAre("(0,7,3,0,0,1,0,0,0,2864434397)"));
}

TEST_F(WriterRetry, SegmentWithoutRoomSpendsItsNumber) {
  korvex::ShmWriter hasty("hasty", queues_.name(), 1, 1, false);
  queues_.takeBatch();
  hasty.open();
  hasty.writeSegment(data_.data(), 3);
  expectTimeout([&] { hasty.writeSegment(data_.data(), 3); });
  queues_.takeBatch();
  hasty.writeSegment(data_.data(), 3);
  EXPECT_THAT(korvex::test::headersOf(queues_.takeBatch()),
              ElementsAre("(2,1,3,0,0,0,0,0,0,2864434397)"));
  hasty.close();
  EXPECT_THAT(korvex::test::headersOf(queues_.takeBatch()),
              ElementsAre("(4,1,3,0,0,0,0,0,0,2864434397)", "(5,3,0,0,0,0,0,0,0,2864434397)"));
}

TEST_F(WriterRetry, OlderReplyMeetsACloseThatWasSent) {
  queues_.takeBatch();
  writer().open();
  queues_.takeBatch();
  queues_.reply(5, "disk full");
  EXPECT_EQ(thrownBy([&] { writer().close(); }), (ThrownError{5, "disk full"}));
  EXPECT_THAT(korvex::test::headersOf(queues_.takeBatch()),
              ElementsAre("(2,3,0,0,0,1,0,0,0,2864434397)"));
  destroyWriter();
  EXPECT_THAT(korvex::test::headersOf(queues_.takeBatch()),
              ElementsAre("(3,3,0,0,0,1,0,0,0,2864434397)"));
}
