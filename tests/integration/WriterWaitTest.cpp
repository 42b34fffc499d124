#include <chrono>
#include <ctime>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "integration/DaemonFixture.h"
#include "korvex/Status.h"
#include "queue/QueueView.h"
#include "support/Bytes.h"
#include "support/DaemonQueues.h"
#include "support/Late.h"
#include "support/ThrownError.h"

using korvex::test::eventually;

namespace {

constexpr unsigned kShortTimeout = 2;

/// A writer waits for room while the other side does not take anything, or dies.
class WriterWait : public DaemonFixture {
 protected:
  /// A daemon that is stopped, so that its queue of one message fills.
  std::unique_ptr<Process> startStopped() {
    auto daemon = start({"--max-messages", "1"});
    daemon->freeze();
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

/// A close that has to make room for its record, on a queue with room for one message, from which
/// one is taken meanwhile: when the clock's next second has begun.
class CloseThatWaitsTwice {
 public:
  CloseThatWaitsTwice() {
    writer_.open();  // fills the queue
    writer_.writeSegment(reinterpret_cast<const unsigned char*>("abc"), 3);
  }

  void run() {
    startSecond_ = std::time(nullptr);
    std::thread taker([&] {
      // Deadlines are counted from whole seconds: one that is counted from now is a later one.
      eventually([&] { return std::time(nullptr) > startSecond_; });
      takenSecond_ = std::time(nullptr);
      taken_ = std::chrono::system_clock::now();
      queues_.takeBatch();
    });
    error_ = thrownBy([&] { writer_.close(); });
    end_ = std::chrono::system_clock::now();
    taker.join();
  }

  const ThrownError& error() const { return error_; }

  /// Whether one of the two waits took longer than a timeout.
  bool isLate() const {
    return takenSecond_ >= startSecond_ + kShortTimeout ||
           end_ > taken_ + kWait + korvex::test::kSlack;
  }

  /// Whether the second wait had a whole timeout of its own.
  bool waitedAnew() const {
    return end_ >= std::chrono::system_clock::from_time_t(takenSecond_) + kWait - kClockDifference;
  }

  /// What is in the queue, and then what the next flush sends.
  std::vector<Bytes> batchesAfterwards() {
    std::vector<Bytes> batches = {queues_.takeBatch()};
    writer_.flush_shm_buffer(1);
    batches.push_back(queues_.takeBatch());
    return batches;
  }

 private:
  static constexpr std::chrono::seconds kWait{kShortTimeout};
  /// The clock of whole seconds may be a tick behind the other.
  static constexpr std::chrono::milliseconds kClockDifference{20};
  /// Holds any record, but no two of them.
  static constexpr std::size_t kMessageSize = 8 + 48 + 40;

  korvex::test::DaemonQueues queues_{kMessageSize, 1};
  korvex::ShmWriter writer_{"s", queues_.name(), kShortTimeout, kShortTimeout, false};
  std::time_t startSecond_ = 0;
  std::time_t takenSecond_ = 0;
  std::chrono::system_clock::time_point taken_;
  std::chrono::system_clock::time_point end_;
  ThrownError error_{0, ""};
};

}  // namespace

TEST_F(WriterWait, EndsAtTheDeadlineAndSendsTheBatchLater) {
  korvex::test::DaemonQueues queues(4096, 1);
  korvex::ShmWriter to("s", queues.name(), 1, 1, false);
  to.open();
  to.writeSegment(reinterpret_cast<const unsigned char*>("abc"), 3);
  EXPECT_EQ(thrownBy([&] { to.flush_shm_buffer(1); }),
            (ThrownError{korvex::kStatusTimedOut,
                         "Timed out after waiting 1s to send data to korvexd on stream s"}));
  queues.takeBatch();
  to.flush_shm_buffer(1);
  EXPECT_EQ(hexOf(queues.takeBatch()),
            hex("ff00ee11 00000001 00000001 00000003 0000000000000002 0000000000000000 00000000"
                "00000000 00000000 00000000 00000000 aabbccdd 616263"));
  to.stop(false);
  queues.takeBatch();
  to.close();
}

// Each wait for room has a deadline of its own, so that a call may take two timeouts, and never
// more.
TEST_F(WriterWait, OfACloseTakesTwoTimeoutsAtMost) {
  const auto close = korvex::test::againWhenLate(
      [] {
        auto attempt = std::make_unique<CloseThatWaitsTwice>();
        attempt->run();
        return attempt;
      },
      [](const auto& attempt) { return attempt->isLate(); });
  EXPECT_FALSE(close->isLate());
  EXPECT_TRUE(close->waitedAnew());
  EXPECT_EQ(close->error(),
            (ThrownError{korvex::kStatusTimedOut,
                         "Timed out after waiting 2s to send data to korvexd on stream s"}));
  const std::vector<Bytes> batches = close->batchesAfterwards();
  EXPECT_EQ(hexOf(batches[0]),
            hex("ff00ee11 00000001 00000001 00000003 0000000000000002 0000000000000000 00000000"
                "00000000 00000000 00000000 00000000 aabbccdd 616263"));
  EXPECT_EQ(hexOf(batches[1]),
            hex("ff00ee11 00000001 00000003 00000000 0000000000000003 0000000000000000 00000000"
                "00000000 00000000 00000000 00000000 aabbccdd"));
}

TEST_F(WriterWait, EndsWithStatus15WhenTheDaemonIsKilled) {
  const auto daemon = startStopped();
  const pid_t sender = startSender(kShortTimeout);
  ASSERT_TRUE(awaitFullQueue());
  daemon->killNow();
  EXPECT_EQ(statusOf(sender), static_cast<int>(korvex::kStatusTimedOut));
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
    daemon->freeze();
  }
  daemon->signal(SIGCONT);
  end(*daemon);
}
