#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "integration/DaemonFixture.h"
#include "support/Receipts.h"

using korvex::test::dieHoldingLockOf;
using korvex::test::eventually;
using korvex::test::kAbcReceipt;
using testing::HasSubstr;

namespace {

/// What happens when one of the two sides dies.
class DaemonDeath : public DaemonFixture {
 protected:
  /// Has a producer of its own open a stream, send some data and die.
  void dieInMidstream() const {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const auto to = writer();
      to->open();
      write(*to, "half");
      to->flush_shm_buffer(kTimeout);
      ::kill(::getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
  }

  /// A writer whose stream has arrived so far that its data is on the way to the disk.
  std::unique_ptr<korvex::ShmWriter> writerInMidstream(const std::string& queue,
                                                       unsigned timeout = kTimeout) const {
    auto to = writer(queue, timeout);
    to->open();
    write(*to, "abc");
    to->flush_shm_buffer(kTimeout);
    return to;
  }
};

}  // namespace

TEST_F(DaemonDeath, LeavesAPartialFolder) {
  const auto daemon = start();
  const auto to = writerInMidstream(queue_);
  ASSERT_TRUE(eventually([&] { return streams(true).size() == 1; }));
  daemon->killNow();
  EXPECT_EQ(streams(true).size(), 1u);
  EXPECT_EQ(streams(false).size(), 0u);
}

TEST_F(DaemonDeath, OfAProducerLeavesItsStreamIncomplete) {
  const auto daemon = start();
  dieInMidstream();
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  ASSERT_EQ(streams(true).size(), 1u);
  EXPECT_EQ(dataOf(streams(true)[0]), "half");
  EXPECT_EQ(manifestOf(streams(true)[0])["state"], "incomplete");
  ASSERT_EQ(streams(false).size(), 1u);
  EXPECT_EQ(dataOf(streams(false)[0]), "abc");
  end(*daemon);
}

TEST_F(DaemonDeath, OfAProducerHoldingTheLockCostsItsPair) {
  const std::string other = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(other);
  const auto daemon = start({"--queue", other});
  ASSERT_TRUE(awaitLog(*daemon, "serving " + other));
  const auto untouched = writerInMidstream(other);
  const auto lost = writerInMidstream(queue_, 1);
  ASSERT_TRUE(eventually([&] { return streams(true).size() == 2; }));
  dieHoldingLockOf(queue_);
  ASSERT_TRUE(awaitLog(*daemon, queue_ + ": served again"));
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  write(*untouched, "def");
  untouched->close();
  EXPECT_THAT(awaitReply(*untouched).message, HasSubstr("stored bytes=6"));
  EXPECT_EQ(streams(true).size(), 1u);
  end(*daemon);
  EXPECT_FALSE(korvex::test::queueExists(queue_) || korvex::test::queueExists(other));
}

// The producer is not promised to live; the daemon and everybody else on it are.
TEST_F(DaemonDeath, OfAQueueCutInMidstreamCostsItsPair) {
  const std::string other = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(other);
  const auto daemon = start({"--queue", other});
  ASSERT_TRUE(awaitLog(*daemon, "serving " + other));
  const auto untouched = writerInMidstream(other);
  const pid_t producer = ::fork();
  if (producer == 0) {
    ::signal(SIGBUS, SIG_DFL);  // a sanitizer would report it
    const auto to = writer();
    to->open();
    for (;;) write(*to, std::string(100000, 'x'));
  }
  ASSERT_TRUE(eventually([&] { return streams(true).size() == 2; }));
  ASSERT_EQ(::truncate(("/dev/shm/" + queue_).c_str(), 0), 0);
  ASSERT_TRUE(awaitLog(*daemon, queue_ + ": served again"));
  ::kill(producer, SIGKILL);
  ::waitpid(producer, nullptr, 0);
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  write(*untouched, "def");
  untouched->close();
  EXPECT_THAT(awaitReply(*untouched).message, HasSubstr("stored bytes=6"));
  end(*daemon);
}

TEST_F(DaemonDeath, OfAProducerHoldingTheReplyLockIsNoticed) {
  const auto daemon = start();
  dieHoldingLockOf(queue_ + "Response");
  ASSERT_TRUE(awaitLog(*daemon, "served again"));
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  end(*daemon);
}

TEST_F(DaemonDeath, HappensAgainAndAgain) {
  const auto daemon = start();
  for (unsigned time = 1; time <= 5; ++time) {
    dieHoldingLockOf(queue_);
    ASSERT_TRUE(awaitLog(*daemon, "served again", time));
  }
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  end(*daemon);
}
