#include <gmock/gmock.h>
#include <korvex/receiver/BusErrorGuard.h>
#include <signal.h>
#include <unistd.h>
#include <vector>

#include "Failure.h"
#include "send/DaemonStream.h"
#include "support/Await.h"
#include "support/FakeDaemon.h"

namespace {

using korvex::test::FakeDaemon;
using korvex::test::staySilent;
using korvex::tool::DaemonStream;
using korvex::tool::Interrupted;
using korvex::tool::StopSignal;

const unsigned char kByte[] = {'x'};

struct DaemonStreamTo : testing::Test {
  DaemonStream::Settings settings(const FakeDaemon& daemon) const {
    return {daemon.queue(), "", std::chrono::seconds(60), true};
  }

  /// Watches as an idle sender does. False when the condition never held.
  template <typename Condition>
  static bool watchUntil(DaemonStream& stream, Condition condition) {
    const auto isMet = [&] {
      stream.watch();
      return condition();
    };
    return korvex::test::eventually(isMet);
  }

  StopSignal stop;
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

TEST_F(DaemonStreamTo, KeepsASilentStreamAliveWithEmptyBatches) {
  FakeDaemon daemon;
  daemon.serve(staySilent);
  auto lively = settings(daemon);
  lively.keepAlive = std::chrono::milliseconds(1);
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
  lively.keepAlive = std::chrono::milliseconds(1);
  DaemonStream stream(lively, stop);
  stream.open();
  stream.write(kByte, sizeof kByte);
  EXPECT_TRUE(watchUntil(stream, [&] { return daemon.segments() == "x"; }));
}

TEST_F(DaemonStreamTo, LeavesAQueueAloneThatIsNotEmptied) {
  FakeDaemon daemon;
  daemon.serve(staySilent);
  auto lively = settings(daemon);
  lively.keepAlive = std::chrono::milliseconds(0);
  DaemonStream stream(lively, stop);
  stream.open();
  daemon.finish();
  EXPECT_TRUE(watchUntil(stream, [&] { return daemon.waiting() == 1; }));
  // Each look is at least 10 ms after the one before, so the second one has looked.
  const auto later = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
  watchUntil(stream, [&] { return std::chrono::steady_clock::now() > later; });
  EXPECT_EQ(daemon.waiting(), 1u);
}

TEST_F(DaemonStreamTo, IsNotClosedAfterASignal) {
  FakeDaemon daemon;
  daemon.serve(staySilent);
  {
    DaemonStream stream(settings(daemon), stop);
    stream.open();
    stream.write(kByte, sizeof kByte);
    stop.note(SIGINT);
    EXPECT_THROW(stream.close(), Interrupted);
  }
  daemon.finish();
  EXPECT_EQ(daemon.types(), "0");
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
  EXPECT_EQ(stream.awaitReceipt(std::chrono::seconds(60)).value_or("none"), "the receipt");
}

TEST_F(DaemonStreamTo, FailsWhenTheQueueIsCutInTheMiddleOfACall) {
  korvex::receiver::installBusErrorGuard();
  FakeDaemon daemon;
  daemon.serve(staySilent);
  DaemonStream stream(settings(daemon), stop);
  stream.open();
  daemon.finish();  // it shall not read from it any more
  const std::vector<unsigned char> piece(stream.largestPiece());
  stream.write(piece.data(), piece.size());  // fills the batch, so that the next record sends it
  ASSERT_EQ(::truncate(("/dev/shm/" + daemon.queue()).c_str(), 0), 0);
  try {
    stream.endSegment();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const korvex::tool::Failure& failure) {
    EXPECT_THAT(failure.what(), testing::HasSubstr("the queue's memory was truncated"));
  }
  stream.stop(DaemonStream::StopWait::Ordinary);  // must not touch it
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
