#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "korvex/receiver/Receipt.h"
#include "queues/QueuePair.h"
#include "stream/Reply.h"
#include "stream/ReplySender.h"
#include "support/LockHolder.h"
#include "support/Namespaces.h"
#include "support/Queues.h"
#include "support/SharedObject.h"

using korvex::MessageQueue;
using korvex::receiver::Count;
using korvex::receiver::QueuePair;
using korvex::receiver::Receiver;
using korvex::receiver::Reply;
using korvex::receiver::replyOf;
using korvex::receiver::ReplySender;

namespace {

class ReplySenderTest : public testing::Test {
 protected:
  /// Sends so many, the first with status 1.
  void send(unsigned count) {
    for (unsigned i = 0; i < count; ++i) sender_.send(replyOf(++lastStatus_, "x"));
  }

  /// The status of the next reply, 0 when there is none.
  ov_status_t receive() {
    Reply reply;
    std::size_t size = 0;
    producer_.tryReceive(&reply, sizeof reply, size);
    return reply.status;
  }

  std::string name_ = korvex::test::uniqueQueueName();
  korvex::test::QueueRemover remover_{name_};
  QueuePair pair_{{name_, {1, 100}, 0600}, Receiver::Existing::Refuse};
  MessageQueue producer_{name_ + "Response", MessageQueue::Clock::now()};
  korvex::receiver::Counters stats_;
  ReplySender sender_{pair_.replies(), stats_};
  ov_status_t lastStatus_ = 0;
};

}  // namespace

TEST(Reply, ReceiptNamesBytesAndDigest) {
  const Reply reply = replyOf(
      0, korvex::receiver::Receipt{18446744073709551615u, std::string(32, 'f')}.replyText());
  EXPECT_EQ(reply.status, 0u);
  EXPECT_STREQ(reply.message,
               "stored bytes=18446744073709551615 xxh128=ffffffffffffffffffffffffffffffff");
}

TEST(Reply, CutsALongTextAtItsEnd) {
  const Reply reply = replyOf(5, "start" + std::string(200, 'x'));
  EXPECT_EQ(std::string(reply.message), "start" + std::string(122, 'x'));
}

TEST_F(ReplySenderTest, SendsInOrder) {
  send(3);
  EXPECT_EQ(receive(), 1u);
  EXPECT_EQ(receive(), 2u);
  EXPECT_EQ(receive(), 3u);
  EXPECT_EQ(stats_.get(Count::RepliesSent), 3u);
}

TEST_F(ReplySenderTest, KeepsWhatFindsNoRoomAndSendsItLater) {
  send(18);
  EXPECT_TRUE(sender_.isPending());
  EXPECT_EQ(stats_.get(Count::RepliesPending), 2u);
  EXPECT_EQ(receive(), 1u);
  sender_.sendPending();
  EXPECT_EQ(stats_.get(Count::RepliesPending), 1u);
  for (ov_status_t status = 2; status <= 17; ++status) EXPECT_EQ(receive(), status);
  sender_.sendPending();
  EXPECT_EQ(receive(), 18u);
  EXPECT_FALSE(sender_.isPending());
}

TEST_F(ReplySenderTest, CountsWhatIsTooMuchToKeep) {
  send(22);
  EXPECT_EQ(stats_.get(Count::RepliesPending), 4u);
  EXPECT_EQ(stats_.get(Count::RepliesLost), 2u);
}

TEST_F(ReplySenderTest, WithdrawsWhatWasNotPickedUp) {
  send(18);
  sender_.withdraw();
  EXPECT_EQ(receive(), 0u);
  EXPECT_FALSE(sender_.isPending());
  EXPECT_EQ(stats_.get(Count::RepliesWithdrawn), 18u);
  EXPECT_EQ(stats_.get(Count::RepliesPending), 0u);
}

TEST_F(ReplySenderTest, WithdrawsEveryReplyOnceTheLockIsFree) {
  send(3);
  korvex::test::LockHolder holder(name_ + "Response");
  std::thread release([&] {
    EXPECT_TRUE(holder.awaitOthersTry());
    holder.release();
  });
  sender_.withdraw();
  release.join();
  EXPECT_EQ(receive(), 0u);
  EXPECT_EQ(stats_.get(Count::RepliesWithdrawn), 3u);
}

TEST_F(ReplySenderTest, NoticesAProducerThatDiedWithTheLock) {
  if (!korvex::test::seesEveryThread()) GTEST_SKIP() << "no view of other PID namespaces";
  EXPECT_NO_THROW(pair_.replies().checkLock());
  korvex::test::dieHoldingLockOf(name_ + "Response");
  EXPECT_THROW(pair_.replies().checkLock(), korvex::receiver::LockLost);
  EXPECT_THROW(sender_.withdraw(), korvex::receiver::LockLost);
  EXPECT_THROW(send(1), korvex::receiver::LockLost);
}

TEST(LockWatch, LosesPatienceWithALivingOwnerAfterFiveSeconds) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  const MessageQueue queue(name, {1, 100}, 0600);
  korvex::receiver::LockWatch watch;
  const auto start = korvex::receiver::LockWatch::Clock::now();
  const auto taken = MessageQueue::Outcome::LockTaken;
  using std::chrono::milliseconds;
  watch.note(taken, queue.view(), start);
  EXPECT_NO_THROW(watch.note(taken, queue.view(), start + milliseconds(4999)));
  EXPECT_THROW(watch.note(taken, queue.view(), start + milliseconds(5000)),
               korvex::receiver::LockLost);
  watch.note(MessageQueue::Outcome::NotReady, queue.view(), start + milliseconds(5000));
  EXPECT_NO_THROW(watch.note(taken, queue.view(), start + milliseconds(9000)));
}

namespace {

/// A lock that is never to be had, held by whom a test says.
class ContendedLock : public testing::Test {
 protected:
  /// Finds the lock taken by the thread so long after the start.
  void noteOwner(pid_t thread, std::chrono::milliseconds after) {
    auto& lock = lock_.mutex()->__data;
    lock.__lock = 1;
    lock.__owner = thread;
    watch_.note(MessageQueue::Outcome::LockTaken, queue_.view(), start_ + after);
  }

  const std::string name_ = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover_{name_};
  const MessageQueue queue_{name_, {1, 100}, 0600};
  const korvex::test::QueueLock lock_{name_};
  korvex::receiver::LockWatch watch_;
  const korvex::receiver::LockWatch::Clock::time_point start_ =
      korvex::receiver::LockWatch::Clock::now();
  // Both live as long as the test.
  const pid_t one_ = ::getpid();
  const pid_t other_ = ::getppid();
};

}  // namespace

TEST_F(ContendedLock, LeavesEachOwnerFiveSeconds) {
  using std::chrono::milliseconds;
  noteOwner(one_, milliseconds(0));
  EXPECT_NO_THROW(noteOwner(other_, milliseconds(4999)));
  EXPECT_NO_THROW(noteOwner(other_, milliseconds(9998)));
  EXPECT_THROW(noteOwner(other_, milliseconds(9999)), korvex::receiver::LockLost);
}

TEST_F(ContendedLock, IsGivenUpAfterAMinuteOfAnyOwners) {
  using std::chrono::seconds;
  for (int second = 0; second < 60; ++second) {
    ASSERT_NO_THROW(noteOwner(second % 2 == 0 ? one_ : other_, seconds(second))) << second;
  }
  EXPECT_THROW(noteOwner(one_, seconds(60)), korvex::receiver::LockLost);
}

TEST_F(ContendedLock, LeavesItsOwnerFiveSecondsForEachMessage) {
  using std::chrono::milliseconds;
  noteOwner(one_, milliseconds(0));
  lock_.field(korvex::test::kMessagesAt) = 1;
  EXPECT_NO_THROW(noteOwner(one_, milliseconds(4999)));
  EXPECT_NO_THROW(noteOwner(one_, milliseconds(9998)));
  EXPECT_THROW(noteOwner(one_, milliseconds(9999)), korvex::receiver::LockLost);
}

TEST_F(ContendedLock, IsLostAtOnceToADeadOwner) {
  if (!korvex::test::seesEveryThread()) GTEST_SKIP() << "no view of other PID namespaces";
  const pid_t dead = ::fork();
  if (dead == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(dead, nullptr, 0), dead);
  noteOwner(one_, std::chrono::milliseconds(0));
  EXPECT_THROW(noteOwner(dead, std::chrono::milliseconds(1)), korvex::receiver::LockLost);
}
