// Two daemons want the same queue at the same moment.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "integration/DaemonFixture.h"

using korvex::test::eventually;
using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr int kRounds = 60;

class DaemonRace : public DaemonFixture {
 protected:
  DaemonRace() {
    EXPECT_EQ(::mkfifo(barrier_.c_str(), 0600), 0);
    pipe_ = ::open(barrier_.c_str(), O_RDWR | O_CLOEXEC);
  }
  ~DaemonRace() override { ::close(pipe_); }

  /// A daemon that begins when everybody does.
  std::unique_ptr<Process> startAtBarrier() const {
    auto daemon = std::make_unique<Process>(std::vector<std::string>{
        "/bin/sh", "-c", "echo ready; read go < \"$0\"; exec \"$@\"", barrier_, KORVEXD_PROGRAM,
        "--queue", queue_, "--discard", "--replace"});
    EXPECT_TRUE(eventually([&] { return daemon->output() == "ready\n"; }));
    return daemon;
  }

  void beginBoth() const { EXPECT_EQ(::write(pipe_, "\n\n", 2), 2); }

  bool isServing(Process& daemon) const {
    return daemon.errors().find("serving " + queue_ + ",") != std::string::npos;
  }

  /// Waits until it serves or has ended. Whether it serves.
  bool awaitDecision(Process& daemon) const {
    EXPECT_TRUE(
        eventually([&] { return isServing(daemon) || daemon.wait(std::chrono::milliseconds(0)); }));
    return isServing(daemon);
  }

  /// It says what it met, whichever step that was.
  void expectLost(Process& daemon) const {
    EXPECT_EQ(daemon.wait(), 1);
    EXPECT_THAT(daemon.errors(), AnyOf(HasSubstr(" is served by another daemon\n"),
                                       HasSubstr(" was just replaced by another daemon\n"),
                                       HasSubstr("publishing queue " + queue_ +
                                                 "Response: error 17 (File exists)")));
    EXPECT_THAT(unfinishedQueuesOf(daemon), IsEmpty());
  }

  const std::string barrier_ = folder_ / "barrier";
  int pipe_ = -1;
};

}  // namespace

// What is stale is what the winner of the round before left when it was killed.
TEST_F(DaemonRace, ForAStaleQueueIsWonByExactlyOne) {
  for (int round = 1; round <= kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const auto one = startAtBarrier();
    const auto other = startAtBarrier();
    beginBoth();
    const bool isOneServing = awaitDecision(*one);
    ASSERT_NE(awaitDecision(*other), isOneServing) << one->errors() << other->errors();
    Process& winner = isOneServing ? *one : *other;
    expectLost(isOneServing ? *other : *one);
    EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
    winner.killNow();
    EXPECT_TRUE(korvex::test::queueExists(queue_) &&
                korvex::test::queueExists(queue_ + "Response"));
  }
}
