#include <chrono>
#include <gtest/gtest.h>
#include <stdexcept>

#include "queue/MessageQueue.h"
#include "send/RoomWait.h"
#include "support/Queues.h"

namespace {

using korvex::MessageQueue;
using korvex::receiver::QueueStatus;
using korvex::tool::RoomWait;
using Clock = RoomWait::Clock;

/// A queue of two messages, which is full.
class RoomWaitTest : public testing::Test {
 protected:
  RoomWaitTest() {
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(queue_.sendBefore("x", 1, 0, soon()));
  }

  void takeOne() {
    char message[8];
    std::size_t size = 0;
    EXPECT_EQ(queue_.tryReceive(message, sizeof message, size), MessageQueue::Outcome::Done);
  }

  static Clock::time_point soon() { return Clock::now() + std::chrono::seconds(60); }
  static Clock::time_point now() { return Clock::now(); }

  const std::string name_ = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover_{name_};
  MessageQueue queue_{name_, {2, 8}, 0600};
  const QueueStatus status_{name_};
  RoomWait wait_;
};

}  // namespace

TEST_F(RoomWaitTest, EndsWithRoom) {
  int checks = 0;
  EXPECT_TRUE(wait_.behind(status_, soon(), [&] {
    if (++checks == 3) takeOne();
  }));
  EXPECT_EQ(checks, 3) << "once for each look at a full queue";
}

TEST_F(RoomWaitTest, EndsWithItsTime) {
  EXPECT_FALSE(wait_.behind(status_, now(), [] {}));
}

TEST_F(RoomWaitTest, EndsWithWhatTheCheckThrows) {
  const auto fail = [] { throw std::runtime_error("gone"); };
  EXPECT_THROW(wait_.behind(status_, soon(), fail), std::runtime_error);
}

// The check of a queue that got room in the first sleep would be a waste.
TEST_F(RoomWaitTest, ChecksNothingWhereThereIsRoom) {
  takeOne();
  EXPECT_TRUE(wait_.behind(status_, soon(), [] { FAIL(); }));
}
