#include <sys/wait.h>
#include <unistd.h>

#include "integration/DaemonFixture.h"
#include "shm/QueueView.h"
#include "support/Bytes.h"
#include "support/DaemonQueues.h"
#include "support/ThrownError.h"

using test_support::eventually;

namespace {

constexpr unsigned kShortTimeout = 2;

/// A writer waits for room while the other side does not take anything, or dies.
class WriterWait : public DaemonFixture {
 protected:
  /// A daemon that is stopped, so that its queue of one message fills.
  std::unique_ptr<Process> startStopped() {
    auto daemon = start({"--max-messages", "1"});
    daemon->signal(SIGSTOP);
    return daemon;
  }

  /// A process that sends until an error ends it; the error's status is its exit code.
  pid_t startSender(unsigned timeout) const {
    const pid_t child = ::fork();
    if (child != 0) return child;
    ov_status_t status = 0;
    try {
      const auto to = writer(queue_, timeout);
      to->open();
      for (;;) to->flush_shm_buffer(timeout);
    } catch (const Ov_ErrnoException& error) {
      status = error.getStatus();
    }
    ::_exit(static_cast<int>(status));
  }

  bool awaitFullQueue() const {
    const korvex::QueueView view(queue_);
    return eventually([&] { return view.looksFull(); });
  }

  static int statusOf(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
};

}  // namespace

TEST_F(WriterWait, EndsAtTheDeadlineAndTheBatchIsSentLater) {
  korvex_test::DaemonQueues queues(4096, 1);
  korvex::ShmWriter to("s", queues.name(), 1, 1, false);
  to.open();
  to.writeSegment(reinterpret_cast<const unsigned char*>("abc"), 3);
  EXPECT_EQ(thrownBy([&] { to.flush_shm_buffer(1); }),
            (ThrownError{15, "Timed out after waiting 1s to send data to korvexd on stream s"}));
  queues.takeBatch();
  to.flush_shm_buffer(1);
  EXPECT_EQ(hexOf(queues.takeBatch()),
            hex("ff00ee11 00000001 00000001 00000003 0000000000000002 0000000000000000 00000000"
                "00000000 00000000 00000000 00000000 aabbccdd 616263"));
  to.stop(false);
  queues.takeBatch();
  to.close();
}

TEST_F(WriterWait, EndsWithStatus15WhenTheDaemonIsKilled) {
  const auto daemon = startStopped();
  const pid_t sender = startSender(kShortTimeout);
  ASSERT_TRUE(awaitFullQueue());
  daemon->killNow();
  EXPECT_EQ(statusOf(sender), 15);
}

// A writer that waited inside the queue would leave the daemon hanging after the second such death.
TEST_F(WriterWait, CutShortByAKillHarmsNobody) {
  const auto daemon = startStopped();
  for (int death = 0; death < 4; ++death) {
    const pid_t sender = startSender(kTimeout);
    ASSERT_TRUE(awaitFullQueue());
    ::kill(sender, SIGKILL);
    EXPECT_EQ(statusOf(sender), -SIGKILL);
    daemon->signal(SIGCONT);
    EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
    daemon->signal(SIGSTOP);
  }
  daemon->signal(SIGCONT);
  end(*daemon);
}
