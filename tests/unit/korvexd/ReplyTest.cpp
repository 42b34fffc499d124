#include "korvexd/Reply.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "integration/support/Queues.h"
#include "korvexd/QueuePair.h"
#include "korvexd/ReplySender.h"
#include "support/Namespaces.h"
#include "support/SharedObject.h"

using korvex::MessageQueue;
using korvexd::Count;
using korvexd::failureOf;
using korvexd::QueuePair;
using korvexd::Reply;
using korvexd::ReplySender;

namespace {

class ReplySenderTest : public testing::Test {
 protected:
  /// Sends so many, the first with status 1.
  void send(unsigned count) {
    for (unsigned i = 0; i < count; ++i) sender_.send(failureOf(++lastStatus_, "x"));
  }

  /// The status of the next reply, 0 when there is none.
  ov_status_t receive() {
    Reply reply;
    std::size_t size = 0;
    producer_.tryReceive(&reply, sizeof reply, size);
    return reply.status;
  }

  std::string name_ = test_support::uniqueQueueName();
  test_support::QueueRemover remover_{name_};
  QueuePair pair_{name_, {1, 100}, 0600, QueuePair::Existing::Refuse};
  MessageQueue producer_{name_ + "Response", MessageQueue::Clock::now()};
  korvexd::Stats stats_;
  ReplySender sender_{pair_.replies(), stats_};
  ov_status_t lastStatus_ = 0;
};

}  // namespace

TEST(Reply, ReceiptNamesBytesAndDigest) {
  const Reply reply = korvexd::receiptOf(18446744073709551615u, std::string(32, 'f'));
  EXPECT_EQ(reply.status, 0u);
  EXPECT_STREQ(reply.message,
               "stored bytes=18446744073709551615 xxh128=ffffffffffffffffffffffffffffffff");
}

TEST(Reply, CutsALongTextAtItsEnd) {
  const Reply reply = failureOf(5, "start" + std::string(200, 'x'));
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

TEST_F(ReplySenderTest, NoticesAProducerThatDiedWithTheLock) {
  if (!korvex_test::seesEveryThread()) GTEST_SKIP() << "no view of other PID namespaces";
  EXPECT_NO_THROW(sender_.checkLock());
  test_support::dieHoldingLockOf(name_ + "Response");
  EXPECT_THROW(sender_.checkLock(), korvexd::LockLost);
  EXPECT_THROW(sender_.withdraw(), korvexd::LockLost);
  EXPECT_THROW(send(1), korvexd::LockLost);
}

TEST(LockWatch, LosesPatienceWithALivingOwnerAfterFiveSeconds) {
  const std::string name = test_support::uniqueQueueName();
  const test_support::QueueRemover remover(name);
  const MessageQueue queue(name, {1, 100}, 0600);
  korvexd::LockWatch watch;
  const auto start = korvexd::LockWatch::Clock::now();
  const auto taken = MessageQueue::Outcome::LockTaken;
  using std::chrono::milliseconds;
  watch.note(taken, queue.view(), start);
  EXPECT_NO_THROW(watch.note(taken, queue.view(), start + milliseconds(4999)));
  EXPECT_THROW(watch.note(taken, queue.view(), start + milliseconds(5000)), korvexd::LockLost);
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

  const std::string name_ = test_support::uniqueQueueName();
  const test_support::QueueRemover remover_{name_};
  const MessageQueue queue_{name_, {1, 100}, 0600};
  const korvex_test::QueueLock lock_{name_};
  korvexd::LockWatch watch_;
  const korvexd::LockWatch::Clock::time_point start_ = korvexd::LockWatch::Clock::now();
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
  EXPECT_THROW(noteOwner(other_, milliseconds(9999)), korvexd::LockLost);
}

TEST_F(ContendedLock, IsGivenUpAfterAMinuteOfAnyOwners) {
  using std::chrono::seconds;
  for (int second = 0; second < 60; ++second) {
    ASSERT_NO_THROW(noteOwner(second % 2 == 0 ? one_ : other_, seconds(second))) << second;
  }
  EXPECT_THROW(noteOwner(one_, seconds(60)), korvexd::LockLost);
}
