#include <atomic>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <korvex/Status.h>
#include <korvex/receiver/BusErrorGuard.h>
#include <memory>
#include <signal.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "Failure.h"
#include "queue/MessageQueue.h"
#include "send/DaemonStream.h"
#include "support/Await.h"
#include "support/FakeDaemon.h"
#include "support/LockHolder.h"
#include "support/QueueFields.h"
#include "support/Queues.h"
#include "support/SharedObject.h"

namespace {

using korvex::test::eventually;
using korvex::test::FakeDaemon;
using korvex::test::LockHolder;
using korvex::test::QueueLock;
using korvex::test::staySilent;
using korvex::tool::DaemonStream;
using korvex::tool::Failure;
using korvex::tool::Interrupted;
using korvex::tool::StopSignal;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;

const unsigned char kByte[] = {'x'};

constexpr seconds kLimit{2};

/// Steps that take less than the limit each, and more than that together.
class SlowSteps {
 public:
  template <typename Step>
  void take(Step step) {
    for (int i = 0; i < 3; ++i) {
      std::this_thread::sleep_for(milliseconds(800));
      const auto start = Clock::now();
      step();
      isLate_ = hasStalled();
      last_ = start;
    }
  }

  /// Whether the machine has made a step, or what came after the last one, last too long.
  bool hasStalled() const { return isLate_ || Clock::now() >= last_ + kLimit; }

 private:
  Clock::time_point last_ = Clock::now();
  bool isLate_ = false;
};

/// Waits until an attempt to send has failed. Each tries to take the lock once at the beginning,
/// and then every 20 ms for 180 ms from its deadline on.
void awaitFailedAttempt(const LockHolder& holder) {
  constexpr int kMoreTries = 12;
  for (int tries = 0; tries < kMoreTries && holder.awaitOthersTry(); tries += 2) {
  }
}

template <typename Operation>
Failure failureOf(Operation operation) {
  try {
    operation();
  } catch (const Failure& failure) {
    return failure;
  }
  ADD_FAILURE() << "it did not fail";
  return {0, ""};
}

struct DaemonStreamTo : testing::Test {
  DaemonStream::Settings settings(const FakeDaemon& daemon, seconds timeout = seconds(60)) const {
    return {daemon.queue(), "", timeout, true};
  }

  /// Watches as an idle sender does. False when the condition never held.
  template <typename Condition>
  static bool watchUntil(DaemonStream& stream, Condition condition) {
    const auto isMet = [&] {
      stream.watch();
      return condition();
    };
    return eventually(isMet);
  }

  /// Of a stream with data, to which this happens, the daemon sees no end.
  template <typename Error>
  void expectNotClosedAfter(const std::function<void(FakeDaemon&)>& event) const {
    FakeDaemon daemon;
    daemon.serve(staySilent);
    {
      DaemonStream stream(settings(daemon), stop);
      stream.open();
      stream.write(kByte, sizeof kByte);
      event(daemon);
      EXPECT_THROW(stream.close(), Error);
    }
    daemon.finish();
    EXPECT_EQ(daemon.types(), "0");
  }

  StopSignal stop;
};

/// An open stream whose daemon takes no more.
struct StuckDaemonStream : DaemonStreamTo {
  void open(seconds timeout = seconds(60)) {
    stream = std::make_unique<DaemonStream>(settings(daemon, timeout), stop);
    daemon.serve(staySilent);
    stream->open();
    daemon.finish();
  }

  /// The next record sends the batch.
  void fillBatch() const {
    const std::vector<unsigned char> piece(stream->largestPiece());
    stream->write(piece.data(), piece.size());
  }

  /// Runs an operation on the stream whose first attempt to send finds the queue locked.
  template <typename Operation>
  void runLocked(Operation operation) const {
    LockHolder holder(daemon.queue());
    auto done = std::async(std::launch::async, operation);
    awaitFailedAttempt(holder);
    holder.release();
    done.get();
  }

  /// Takes what waits. The types of all records so far.
  std::string takenTypes() {
    daemon.serve(staySilent);
    daemon.finish();
    return daemon.types();
  }

  FakeDaemon daemon;
  std::unique_ptr<DaemonStream> stream;
};

/// A daemon whose batches are taken by hand: by changing the number of those that wait.
struct DaemonStreamByHand : DaemonStreamTo {
  bool awaitWaiting(std::uint64_t count) const {
    return eventually([&] { return waiting == count; });
  }

  /// Opens a stream while three batches of others wait.
  std::future<void> openBehindOthers(seconds timeout) {
    daemon.fill();
    waiting = 3;
    stream = std::make_unique<DaemonStream>(settings(daemon, timeout), stop);
    auto opened = std::async(std::launch::async, [this] { stream->open(); });
    EXPECT_TRUE(awaitWaiting(4));
    return opened;
  }

  FakeDaemon daemon;
  QueueLock lock{daemon.queue()};
  std::atomic<std::uint64_t>& waiting = lock.field(korvex::test::kMessagesAt);
  std::unique_ptr<DaemonStream> stream;
};

}  // namespace

TEST_F(DaemonStreamTo, APieceFillsTheLargestMessage) {
  const FakeDaemon daemon({4, 4096});
  EXPECT_EQ(DaemonStream(settings(daemon), stop).largestPiece(), 4040u);  // less 8 and 48
}

TEST_F(DaemonStreamTo, APieceIsNeverLargerThanARecord) {
  const FakeDaemon daemon({4, 1 << 20});
  EXPECT_EQ(DaemonStream(settings(daemon), stop).largestPiece(), 131072u);
}

TEST_F(DaemonStreamTo, OpensOnceTheDaemonTookTheOpenRecord) {
  FakeDaemon daemon;
  daemon.serve(staySilent);
  DaemonStream stream(settings(daemon), stop);
  stream.open();
  EXPECT_EQ(daemon.types(), "0");
}

TEST_F(DaemonStreamTo, OpensAfterThreeEmptyBatches) {
  FakeDaemon daemon;
  std::size_t opensIn = 0;
  daemon.serve([&](FakeDaemon& self, const FakeDaemon::Record&) { opensIn = self.batches(); });
  DaemonStream(settings(daemon), stop).open();
  daemon.finish();
  EXPECT_EQ(opensIn, 4u);
}

TEST_F(DaemonStreamTo, KeepsASilentStreamAliveWithEmptyBatches) {
  FakeDaemon daemon;
  daemon.serve(staySilent);
  auto lively = settings(daemon);
  lively.keepAlive = milliseconds(1);
  DaemonStream stream(lively, stop);
  stream.open();
  const std::size_t before = daemon.batches();
  EXPECT_TRUE(watchUntil(stream, [&] { return daemon.batches() >= before + 3; }));
  EXPECT_EQ(daemon.types(), "0");
}

TEST_F(DaemonStreamTo, SendsWhatThereIsAsASignOfLife) {
  FakeDaemon daemon;
  daemon.serve(staySilent);
  auto lively = settings(daemon);
  lively.keepAlive = milliseconds(1);
  DaemonStream stream(lively, stop);
  stream.open();
  stream.write(kByte, sizeof kByte);
  EXPECT_TRUE(watchUntil(stream, [&] { return daemon.segments() == "x"; }));
}

TEST_F(DaemonStreamTo, LeavesAQueueAloneThatIsNotEmptied) {
  FakeDaemon daemon;
  daemon.serve(staySilent);
  auto lively = settings(daemon);
  lively.keepAlive = milliseconds(0);
  DaemonStream stream(lively, stop);
  stream.open();
  daemon.finish();
  EXPECT_TRUE(watchUntil(stream, [&] { return daemon.waiting() == 1; }));
  // Each look is at least 10 ms after the one before, so the second one has looked.
  const auto later = Clock::now() + milliseconds(20);
  watchUntil(stream, [&] { return Clock::now() > later; });
  EXPECT_EQ(daemon.waiting(), 1u);
}

TEST_F(DaemonStreamTo, IsNotClosedAfterASignal) {
  expectNotClosedAfter<Interrupted>([this](FakeDaemon&) { stop.note(SIGINT); });
}

TEST_F(DaemonStreamTo, IsNotClosedOverAForeignReceipt) {
  expectNotClosedAfter<Failure>(
      [](FakeDaemon& daemon) { daemon.reply(0, "stored bytes=1 xxh128=00"); });
}

TEST_F(DaemonStreamTo, WaitsForTheReceiptWhileTheDaemonIsFinishing) {
  FakeDaemon daemon;
  daemon.serve([](FakeDaemon& fake, const FakeDaemon::Record& record) {
    if (record.type != 3) return;
    for (int i = 0; i < 3; ++i) fake.reply(0, "finishing");
    fake.reply(0, "the receipt");
  });
  DaemonStream stream(settings(daemon), stop);
  stream.open();
  stream.close();
  EXPECT_EQ(stream.awaitReceipt(seconds(60)).value_or("none"), "the receipt");
}

TEST_F(DaemonStreamTo, TellsThatTheEngineIsFinishingWhileItWaits) {
  FakeDaemon daemon;
  daemon.serve(staySilent);
  DaemonStream stream(settings(daemon), stop);
  stream.open();
  stream.close();
  std::vector<bool> told;
  const auto receipt = stream.awaitReceipt(seconds(60), [&] {
    if (!told.empty() && told.back() == stream.isEngineFinishing()) return;
    told.push_back(stream.isEngineFinishing());
    daemon.reply(0, told.back() ? "the receipt" : "finishing");
  });
  EXPECT_EQ(receipt.value_or("none"), "the receipt");
  EXPECT_EQ(told, (std::vector<bool>{false, true}));
}

TEST_F(DaemonStreamTo, FailsWithTheStatusOfTheFailingQueue) {
  FakeDaemon daemon;
  const auto statusWithout = [&] {
    return failureOf([&] { DaemonStream(settings(daemon), stop).open(); }).status();
  };
  ASSERT_TRUE(korvex::MessageQueue::remove(daemon.queue() + "Response"));
  EXPECT_EQ(statusWithout(), static_cast<unsigned>(ENOENT));
  ASSERT_TRUE(korvex::MessageQueue::remove(daemon.queue()));
  EXPECT_EQ(statusWithout(), static_cast<unsigned>(ENOENT));
  const korvex::test::QueueRemover remover(daemon.queue());
  std::ofstream("/dev/shm/" + daemon.queue()) << std::string(4096, 'x');
  EXPECT_EQ(statusWithout(), korvex::kStatusCorrupt);
}

// As when somebody holds up the terminal that the caller writes to.
TEST_F(DaemonStreamTo, TakesAReceiptAfterALongCallback) {
  FakeDaemon daemon;
  daemon.serve(staySilent);
  DaemonStream stream(settings(daemon), stop);
  stream.open();
  stream.close();
  const auto receipt = stream.awaitReceipt(seconds(1), [&, held = false]() mutable {
    if (std::exchange(held, true)) return;
    daemon.reply(0, "the receipt");
    std::this_thread::sleep_for(seconds(1));
  });
  EXPECT_EQ(receipt.value_or("none"), "the receipt");
}

TEST_F(DaemonStreamTo, IsStoppedOnceAtMost) {
  FakeDaemon daemon;
  daemon.serve(staySilent);
  DaemonStream stream(settings(daemon), stop);
  stream.stop(DaemonStream::StopWait::Short);  // not open yet
  stream.open();
  stream.stop(DaemonStream::StopWait::Short);
  stream.stop(DaemonStream::StopWait::Ordinary);
  daemon.finish();
  EXPECT_EQ(daemon.types(), "04");
}

TEST_F(StuckDaemonStream, TakesNothingBehindItsReceipt) {
  open();
  stream->close();
  daemon.reply(0, "the receipt");
  daemon.reply(32, "no stream is open");
  EXPECT_EQ(stream->awaitReceipt(seconds(60)).value_or("none"), "the receipt");
}

TEST_F(StuckDaemonStream, EachSignOfLifeRestartsTheReceiptsTime) {
  open();
  stream->close();
  SlowSteps steps;
  auto received = std::async(std::launch::async, [this] { return stream->awaitReceipt(kLimit); });
  steps.take([this] { daemon.reply(0, "finishing"); });
  daemon.reply(0, "the receipt");
  const auto receipt = received.get();
  if (steps.hasStalled()) GTEST_SKIP() << "the machine stalled";
  EXPECT_EQ(receipt.value_or("none"), "the receipt");
}

TEST_F(StuckDaemonStream, IsClosedOnceThoughTheQueueWasLocked) {
  open();
  stream->write(kByte, sizeof kByte);
  runLocked([this] { stream->close(); });
  EXPECT_EQ(takenTypes(), "013");
}

TEST_F(StuckDaemonStream, IsClosedThoughAFullBatchMetALock) {
  open();
  fillBatch();
  runLocked([this] { stream->close(); });
  EXPECT_EQ(takenTypes(), "013");
}

TEST_F(StuckDaemonStream, IsStoppedOnceThoughTheQueueWasLocked) {
  open();
  runLocked([this] { stream->stop(DaemonStream::StopWait::Ordinary); });
  EXPECT_EQ(takenTypes(), "04");
}

TEST_F(StuckDaemonStream, ASignalEndsAnOrdinaryStop) {
  open(std::chrono::hours(1));
  daemon.fill();
  stop.note(SIGTERM);
  const auto stopped =
      std::async(std::launch::async, [this] { stream->stop(DaemonStream::StopWait::Ordinary); });
  EXPECT_EQ(stopped.wait_for(seconds(30)), std::future_status::ready);
  EXPECT_EQ(takenTypes(), "0");
}

TEST_F(StuckDaemonStream, IsLeftAloneAfterATimeout) {
  open(kLimit);
  fillBatch();
  daemon.fill();
  EXPECT_THROW(stream->endSegment(), Failure);
  takenTypes();
  stream->stop(DaemonStream::StopWait::Ordinary);
  EXPECT_EQ(takenTypes(), "0");
}

TEST_F(StuckDaemonStream, NoticesThatALockedQueueWasReplaced) {
  open(seconds(5));
  fillBatch();
  QueueLock(daemon.queue()).takeAndDie();
  daemon.replaceQueues();
  EXPECT_THAT(failureOf([this] { stream->endSegment(); }).what(), HasSubstr("removed or replaced"));
}

TEST_F(StuckDaemonStream, FailsWhenTheQueueIsCutDuringACall) {
  korvex::receiver::installBusErrorGuard();
  open();
  fillBatch();
  ASSERT_EQ(::truncate(("/dev/shm/" + daemon.queue()).c_str(), 0), 0);
  const Failure failure = failureOf([this] { stream->endSegment(); });
  EXPECT_EQ(failure.status(), static_cast<unsigned>(ECONNRESET));
  EXPECT_THAT(failure.what(), StartsWith("the stream to queue '"));
  EXPECT_THAT(failure.what(), HasSubstr("the queue's memory was truncated"));
  stream->stop(DaemonStream::StopWait::Ordinary);  // must not touch it
}

TEST_F(DaemonStreamByHand, FailsWhenTheQueueIsCutBeforeItOpens) {
  korvex::receiver::installBusErrorGuard();
  DaemonStream cut(settings(daemon), stop);
  ASSERT_EQ(::truncate(("/dev/shm/" + daemon.queue()).c_str(), 0), 0);
  const Failure failure = failureOf([&] { cut.open(); });
  EXPECT_EQ(failure.status(), static_cast<unsigned>(ECONNRESET));
  EXPECT_THAT(failure.what(), StartsWith("the stream to queue '"));
}

TEST_F(DaemonStreamByHand, FailsWhenTheDaemonSticksAfterABatch) {
  auto opened = openBehindOthers(seconds(1));
  std::this_thread::sleep_for(milliseconds(50));  // so that it has seen them all
  waiting = 3;
  EXPECT_EQ(opened.wait_for(seconds(30)), std::future_status::ready);
  stop.note(SIGTERM);
  EXPECT_THAT(failureOf([&] { opened.get(); }).what(), HasSubstr("waited 1 s for the daemon"));
}

TEST_F(DaemonStreamByHand, EachBatchTakenRestartsTheTimeout) {
  SlowSteps steps;
  auto opened = openBehindOthers(kLimit);
  steps.take([this] { --waiting; });
  daemon.serve(staySilent);
  opened.wait();
  if (steps.hasStalled()) GTEST_SKIP() << "the machine stalled";
  EXPECT_NO_THROW(opened.get());
}

TEST_F(DaemonStreamByHand, OpensOnceThoughTheQueueWasLocked) {
  stream = std::make_unique<DaemonStream>(settings(daemon), stop);
  auto opened = std::async(std::launch::async, [this] { stream->open(); });
  ASSERT_TRUE(awaitWaiting(1));
  waiting = 0;
  ASSERT_TRUE(awaitWaiting(2));
  LockHolder holder(daemon.queue());
  waiting = 0;  // the open record comes next
  awaitFailedAttempt(holder);
  holder.release();
  daemon.serve(staySilent);
  opened.get();
  EXPECT_EQ(daemon.types(), "0");
}
