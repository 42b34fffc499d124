#include <exception>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include "korvex/receiver/BusErrorGuard.h"
#include "korvex/receiver/Receipt.h"
#include "korvex/receiver/ReplyQueue.h"
#include "support/DaemonQueues.h"
#include "support/SharedObject.h"

namespace {

using korvex::receiver::ReplyQueue;
using korvex::receiver::textOf;
using korvex::test::DaemonQueues;

TEST(ReplyQueue, GivesRepliesInTheirOrderAndThenNothing) {
  DaemonQueues queues;
  queues.reply(5, "first");
  queues.reply(0, "second");
  ReplyQueue replies(queues.name());

  EXPECT_EQ(replies.messages(), 2u);
  const auto first = replies.take();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->status, 5u);
  EXPECT_EQ(textOf(*first), "first");
  EXPECT_EQ(textOf(replies.take().value()), "second");
  EXPECT_FALSE(replies.take());
  EXPECT_EQ(replies.messages(), 0u);
}

TEST(ReplyQueue, HasTheRoomOfTheResponseQueue) {
  const DaemonQueues queues(4096, 7);
  EXPECT_EQ(ReplyQueue(queues.name()).capacity(), 4u);
}

TEST(ReplyQueue, GivesNothingWhileTheLockIsTaken) {
  DaemonQueues queues;
  queues.reply(0, "kept");
  ReplyQueue replies(queues.name());
  const korvex::test::QueueLock lock(queues.response().name());
  ::pthread_mutex_lock(lock.mutex());
  EXPECT_FALSE(replies.take());
  ::pthread_mutex_unlock(lock.mutex());
  EXPECT_TRUE(replies.take());
}

TEST(ReplyQueue, NoticesThatItsNameWasTakenAway) {
  DaemonQueues queues;
  ReplyQueue replies(queues.name());
  EXPECT_TRUE(replies.isStillNamed());
  boost::interprocess::message_queue::remove(queues.response().name().c_str());
  EXPECT_FALSE(replies.isStillNamed());
}

TEST(ReplyQueue, NoticesThatItsMemoryWasCut) {
  korvex::receiver::installBusErrorGuard();
  DaemonQueues queues;
  queues.reply(0, "lost");
  const ReplyQueue replies(queues.name());
  EXPECT_EQ(replies.messages(), 1u);
  ASSERT_EQ(::truncate(("/dev/shm/" + queues.response().name()).c_str(), 0), 0);
  EXPECT_FALSE(replies.isStillNamed());
  EXPECT_EQ(replies.messages(), 0u);
}

TEST(ReplyQueue, RefusesQueuesThatAreAbsentOrHalfMade) {
  const std::string name = korvex::test::uniqueQueueName();
  EXPECT_THROW(ReplyQueue{name}, std::exception);
  const korvex::test::SharedObject empty(name + "Response", korvex::test::Bytes());
  EXPECT_THROW(ReplyQueue{name}, std::exception);
}

}  // namespace
