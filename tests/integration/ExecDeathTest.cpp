// To an engine the end of its input is the end of a whole stream. So nothing that ends a stream
// early, and nobody who is killed, may end an engine's input while it lives.

#include <algorithm>
#include <fcntl.h>
#include <ostream>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "integration/ExecFixture.h"
#include "queue/MessageQueue.h"
#include "support/FewDescriptors.h"
#include "support/Receipts.h"

using korvex::test::childrenOf;
using korvex::test::eventually;
using korvex::test::FewDescriptors;
using korvex::test::kAbcReceipt;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

/// An engine and what it starts. The recorder in it stores a stream when it sees its end.
struct Kind {
  const char* name;
  const char* script;  ///< $0 is the folder, $1 the recorder; empty for the recorder alone
};

std::ostream& operator<<(std::ostream& out, const Kind& kind) { return out << kind.name; }

const Kind kKinds[] = {
    {"Plain", ""},
    {"Pipeline", R"sh(cat | cat | "$1" "$0")sh"},
    {"Stubborn", R"sh(trap "" TERM INT HUP; exec 3<&0; "$1" "$0" <&3; exit)sh"},
    {"Detached", R"sh(exec 3<&0; (setsid sh -c "\"$1\" \"$0\" <&3 &"); exec sleep 1000)sh"},
    {"Orphaned",
     R"sh(exec 3<&0; (setsid sh -c "(\"$1\" \"$0\" <&3 &)" &); exec 3<&- sleep 1000)sh"}};

std::string nameOf(const testing::TestParamInfo<Kind>& info) { return info.param.name; }

class ExecDeath : public ExecFixture, public testing::WithParamInterface<Kind> {
 protected:
  std::string command(const Kind& kind) const {
    if (*kind.script == '\0') return recorderCommand();
    return script(kind.script) + " " + recorder();
  }

  std::unique_ptr<Process> startKind(const std::vector<std::string>& more = {}) const {
    return startExec(command(GetParam()), more);
  }

  /// Whatever it was, nothing of the stream's engine is left, and it has stored nothing.
  void expectCutNowhere() const {
    EXPECT_TRUE(awaitNoProcess());
    EXPECT_THAT(stored(), IsEmpty());
    EXPECT_THAT(unfinished(), SizeIs(1));
  }

  void sendDamage() const {
    korvex::MessageQueue queue(queue_, korvex::MessageQueue::Clock::now());
    ASSERT_TRUE(queue.sendBefore("bad", 3, 1,
                                 korvex::MessageQueue::Clock::now() + korvex::test::kPatience));
  }

  /// What waits in the input of the stream's engine.
  int bytesInPipe() const {
    const auto keepers = korvex::test::keepersFor(queue_);
    if (keepers.empty()) return 0;
    const std::string path = "/proc/" + std::to_string(keepers[0]) + "/fd/4";
    const int pipe = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    int bytes = 0;
    ::ioctl(pipe, FIONREAD, &bytes);
    ::close(pipe);
    return bytes;
  }

  pid_t engine() const { return childrenOf(keeper()).at(0); }
};

/// Without the kinds.
using ExecOneDeath = ExecDeath;

}  // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, ExecDeath, testing::ValuesIn(kKinds), nameOf);

TEST_P(ExecDeath, ComesBeforeTheEndOfAStoppedStream) {
  const auto daemon = startKind();
  openRecorded("abc")->stop(false);
  expectCutNowhere();
}

TEST_P(ExecDeath, ComesBeforeTheNextStream) {
  const auto daemon = startKind();
  const auto cut = openRecorded("abc");
  const auto to = openStream("def");
  ASSERT_TRUE(awaitRecorded("def"));
  to->stop(false);
  EXPECT_TRUE(awaitNoProcess());
  EXPECT_THAT(stored(), IsEmpty());
  EXPECT_THAT(unfinished(), SizeIs(2));
}

TEST_P(ExecDeath, ComesBeforeTheEndOfADamagedStream) {
  const auto daemon = startKind();
  const auto to = openRecorded("abc");
  sendDamage();
  expectCutNowhere();
}

TEST_P(ExecDeath, ComesWithTheOrderlyEndOfTheDaemon) {
  const auto daemon = startKind();
  const auto to = openRecorded("abc");
  end(*daemon);
  expectCutNowhere();
}

TEST_P(ExecDeath, ComesWithTheLossOfTheQueues) {
  const auto daemon = startKind();
  const auto to = openRecorded("abc");
  ASSERT_EQ(::unlink(("/dev/shm/" + queue_).c_str()), 0);
  expectCutNowhere();
}

TEST_P(ExecDeath, ComesWithTheDaemons) {
  const auto daemon = startKind();
  const auto to = openRecorded("abc");
  daemon->killNow();
  expectCutNowhere();
}

TEST_P(ExecDeath, ComesWithTheKeepers) {
  const auto daemon = startKind();
  const auto to = openRecorded("abc");
  ::kill(keeper(), SIGKILL);
  expectCutNowhere();
  const Reply reply = awaitReply(*to);
  EXPECT_EQ(reply.status, 5u);
  EXPECT_STREQ(reply.message, "the engine's keeper was killed");
  EXPECT_TRUE(eventually([&] { return childrenOf(daemon->id()).empty(); })) << "zombies";
}

TEST_P(ExecDeath, OfTheEngineTakesAlongWhatItStarted) {
  const auto daemon = startKind();
  const auto to = openRecorded("abc");
  ::kill(engine(), SIGKILL);
  expectCutNowhere();
  EXPECT_STREQ(awaitReply(*to).message, "the engine was killed by signal 9");
}

TEST_P(ExecDeath, SparesAWholeStream) {
  const auto daemon =
      startExec(*GetParam().script == '\0' || GetParam().name[0] == 'P' || GetParam().name[0] == 'S'
                    ? command(GetParam())
                    : recorderCommand());
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  EXPECT_THAT(stored(), SizeIs(1));
}

TEST_F(ExecOneDeath, OfDaemonOrKeeperFindsAFullPipe) {
  for (const bool isDaemon : {true, false}) {
    SCOPED_TRACE(isDaemon ? "daemon" : "keeper");
    const auto daemon =
        startExec(script(R"sh(kill -STOP $$; exec "$1" "$0")sh") + " " + recorder(), {"--replace"});
    const auto to = writer(queue_, 1);
    to->open();
    for (int i = 0; i < 15; ++i) write(*to, std::string(100000, 'x'));
    to->flush_shm_buffer(kTimeout);
    ASSERT_TRUE(eventually([&] { return bytesInPipe() > 900000; }));
    isDaemon ? daemon->killNow() : static_cast<void>(::kill(keeper(), SIGKILL));
    EXPECT_TRUE(awaitNoProcess());
    EXPECT_THAT(stored(), IsEmpty());
  }
}

TEST_F(ExecOneDeath, MayComeToTheDaemonAtAnyMoment) {
  for (int moment = 0; moment < 20; ++moment) {
    const auto daemon = startExec(recorderCommand(), {"--replace"});
    const auto to = writer(queue_, 1);
    to->open();
    write(*to, "abc");
    to->flush_shm_buffer(kTimeout);
    ::usleep(static_cast<useconds_t>(moment) * 500);  // each finds the engine elsewhere
    daemon->killNow();
    ASSERT_TRUE(awaitNoProcess());
    ASSERT_THAT(stored(), IsEmpty());
  }
}

TEST_F(ExecOneDeath, OfTheDaemonLetsAnEngineFinish) {
  const auto daemon = startExec(
      script(R"sh("$1" "$0"; echo >"$0/ended"; until [ -e "$0/go" ]; do sleep 0.02; done; )sh"
             R"sh(yes | head -c 200000; echo >"$0/finished")sh") +
      " " + recorder());
  const auto to = openStream("abc");
  to->close();
  ASSERT_TRUE(awaitFile("ended"));
  daemon->killNow();
  makeFile("go");
  EXPECT_TRUE(awaitFile("finished")) << "nobody reads its output, and it may not die of that";
  EXPECT_TRUE(awaitNoProcess());
  EXPECT_THAT(stored(), SizeIs(1));
}

TEST_F(ExecOneDeath, OfTheDaemonLimitsTheTimeToFinish) {
  const auto daemon = startExec(script(R"sh(cat >/dev/null; echo >"$0/ended"; exec sleep 1000)sh"),
                                {"--exec-timeout", "2"});
  const auto to = openStream("abc");
  to->close();
  ASSERT_TRUE(awaitFile("ended"));
  daemon->killNow();
  EXPECT_TRUE(awaitNoProcess());
}

TEST_F(ExecOneDeath, OfTheKeeperFailsAStreamThatIsFinishing) {
  const auto daemon = startExec(script(R"sh(cat >/dev/null; echo >"$0/ended"; exec sleep 1000)sh"));
  const auto to = openStream("abc");
  to->close();
  ASSERT_TRUE(awaitFile("ended"));
  ::kill(keeper(), SIGKILL);
  EXPECT_STREQ(awaitReply(*to).message, "the engine's keeper was killed");
  EXPECT_TRUE(awaitNoProcess());
}

TEST_F(ExecOneDeath, OfAStreamDoesNotAwaitAHangingKeeper) {
  const auto daemon = startExec(recorderCommand(), {"--exec-timeout", "1"});
  const auto to = openRecorded("abc");
  const pid_t hanging = keeper();
  ::kill(hanging, SIGSTOP);
  to->close();
  EXPECT_TRUE(awaitLog(*daemon, "stream incomplete (the engine's keeper does not answer)"));
  ::kill(hanging, SIGCONT);
  EXPECT_TRUE(awaitNoProcess());
}

TEST_F(ExecOneDeath, OrderlyOfTheDaemonLeavesAnEngineToFinish) {
  const auto daemon = startExec(
      script(R"sh("$1" "$0"; echo >"$0/ended"; until [ -e "$0/go" ]; do sleep 0.02; done; )sh"
             R"sh(echo >"$0/finished")sh") +
      " " + recorder());
  const auto to = openStream("abc");
  to->close();
  ASSERT_TRUE(awaitFile("ended"));
  end(*daemon);
  EXPECT_STREQ(awaitReply(*to).message,
               "unknown outcome: the daemon ended while the engine was finishing");
  makeFile("go");
  EXPECT_TRUE(awaitFile("finished"));
  EXPECT_TRUE(awaitNoProcess());
}

TEST_F(ExecOneDeath, OfAKeeperTouchesNoOtherStream) {
  const std::string other = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(other);
  const auto daemon = startExec(recorderCommand(), {"--queue", other});
  ASSERT_TRUE(awaitLog(*daemon, "serving " + other));
  const auto untouched = writer(other);
  untouched->open();
  write(*untouched, "abc");
  untouched->flush_shm_buffer(kTimeout);
  const auto to = openRecorded("abc");
  ::kill(keeper(), SIGKILL);
  EXPECT_STREQ(awaitReply(*to).message, "the engine's keeper was killed");
  EXPECT_STREQ(replyToClose(*untouched).message, kAbcReceipt);
}

TEST_F(ExecOneDeath, OfAKeeperSparesChildrenThatAreNoEngines) {
  Process daemon({"/bin/sh", "-c",
                  "sleep 1000 & echo $! >\"$0/new\"; mv \"$0/new\" \"$0/child\"; exec \"$@\"",
                  output_, KORVEXD_PROGRAM, "--queue", queue_, "--exec", recorderCommand()});
  ASSERT_TRUE(awaitServing(daemon));
  const pid_t child = processIn("child");
  const auto to = openRecorded("abc");
  ::kill(keeper(), SIGKILL);
  EXPECT_STREQ(awaitReply(*to).message, "the engine's keeper was killed");
  EXPECT_TRUE(awaitNoProcess());
  EXPECT_TRUE(korvex::test::eventually(
      [&] { return childrenOf(daemon.id()) == std::vector<pid_t>{child}; }));
  EXPECT_EQ(::kill(child, SIGKILL), 0);
}

TEST_F(ExecOneDeath, OfTheKeeperIsMendedWithFewDescriptorsToo) {
  for (const unsigned left : {0U, 1U, 2U, 3U}) {
    SCOPED_TRACE(left);
    const auto daemon = startExec(recorderCommand(), {"--replace"});
    const auto to = openRecorded("abc" + std::to_string(left));
    {
      const FewDescriptors few(left, daemon->id());
      ::kill(keeper(), SIGKILL);
      EXPECT_STREQ(awaitReply(*to).message, "the engine's keeper was killed");
    }
    EXPECT_TRUE(awaitNoProcess());
    EXPECT_THAT(stored(), IsEmpty());
  }
}

TEST_F(ExecOneDeath, IsUpToAKeeperWithoutDescriptors) {
  const auto daemon = startExec(recorderCommand());
  const auto to = openRecorded("abc");
  {
    const FewDescriptors none(0, keeper());
    EXPECT_STREQ(replyToClose(*to).message,
                 "checking the engine's input: error 24 (Too many open files)");
    daemon->killNow();
    EXPECT_THAT(korvex::test::processesFor(queue_), SizeIs(2)) << "keeper and engine";
  }
  expectCutNowhere();
}

TEST_F(ExecOneDeath, ComesToASlowEngineWithTheDaemonsEnd) {
  makeFile("pace", "300000 0 0");  // it needs more than a minute for the message
  const auto daemon =
      startExec(recorderCommand(), {"--max-messages", "1", "--max-message-size", "16M"});
  const auto to = writer();
  to->open();
  for (int i = 0; i < 150; ++i) write(*to, std::string(100000, 'x'));
  to->flush_shm_buffer(kTimeout);
  ASSERT_TRUE(eventually([&] { return bytesInPipe() > 900000; }));
  end(*daemon);
  expectCutNowhere();
}
