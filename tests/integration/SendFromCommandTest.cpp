// A command's output, sent by the real tool to the real daemon, into a folder or an engine.

#include <filesystem>
#include <gmock/gmock.h>
#include <signal.h>
#include <string.h>

#include "integration/ExecFixture.h"
#include "queue/QueueView.h"

namespace {

using korvex::test::contentsOf;
using korvex::test::eventually;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Words = std::vector<std::string>;

/// In a shell's line $0 is a folder for what the command leaves.
class FromCommand : public ExecFixture {
 protected:
  Words sendWords(const Words& more) const {
    Words words = {KORVEX_PROGRAM, "send", "--queue", queue_, "--json", "--from-command"};
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }
  Words shellWords(const std::string& line) const { return sendWords({"sh", "-c", line, traces_}); }

  /// Runs a sender to its end and keeps what it said.
  int send(const std::string& line) {
    Process sender(shellWords(line));
    return finish(sender);
  }
  int finish(Process& sender) {
    const int code = sender.wait().value_or(-1000);
    errors = sender.errors();
    result = nlohmann::json::parse(sender.output(), nullptr, false);
    return code;
  }

  bool awaitTrace(const std::string& name) const {
    return eventually([&] { return std::filesystem::exists(traces_ + "/" + name); });
  }
  bool awaitEndOf(const std::string& name) const {
    const pid_t process = std::stoi(contentsOf(traces_ + "/" + name));
    return eventually([&] { return ::kill(process, 0) != 0; });
  }

  /// Waits for data in the queue. Before a stream opens, two empty batches may be there.
  void awaitFlow() const {
    const korvex::QueueView view(queue_);
    ASSERT_TRUE(eventually([&] { return view.messages() > 2; }));
  }

  std::string traces_ = folder_.makeFolder("traces");
  std::string errors;
  nlohmann::json result;
};

class FromCommandSignal : public FromCommand, public testing::WithParamInterface<int> {};

}  // namespace

TEST_F(FromCommand, ALargeOutputArrivesIdentical) {
  const auto daemon = start();
  Process sender(sendWords({"sh", "-c", "seq 1 2000000 | tee \"$0/sent\"", traces_}));
  EXPECT_EQ(finish(sender), 0) << errors;
  ASSERT_THAT(streams(false), SizeIs(1));
  EXPECT_TRUE(dataOf(streams(false).front()) == contentsOf(traces_ + "/sent"));
  EXPECT_EQ(result["command"], nlohmann::json({{"exitCode", 0}}));
  end(*daemon);
}

TEST_F(FromCommand, AnExitCodeLeavesAnIncompleteStream) {
  const auto daemon = start();
  EXPECT_EQ(send("echo a; exit 1"), 1);
  EXPECT_EQ(errors, "korvex: the command 'sh' ended with exit code 1\n");
  end(*daemon);
  EXPECT_THAT(streams(false), IsEmpty());
  EXPECT_THAT(streams(true), SizeIs(1));
}

TEST_F(FromCommand, AKillInMidstreamLeavesAnIncompleteStream) {
  const auto daemon = start();
  EXPECT_EQ(send("head -c 20000000 /dev/zero; kill -9 $$"), 1);
  EXPECT_THAT(errors, HasSubstr("was ended by signal 9 (SIGKILL)"));
  EXPECT_GT(result["bytes"], 10000000);
  EXPECT_EQ(result["command"], nlohmann::json({{"signal", "SIGKILL"}}));
  end(*daemon);
  EXPECT_THAT(streams(false), IsEmpty());
  EXPECT_THAT(streams(true), SizeIs(1));
}

TEST_F(FromCommand, ACommandThatCannotStartOpensNoStream) {
  const auto daemon = start();
  Process sender(sendWords({"korvex-test-no-such"}));
  EXPECT_EQ(finish(sender), 1);
  EXPECT_THAT(errors, HasSubstr("'korvex-test-no-such' cannot be started: No such file"));
  end(*daemon);
  EXPECT_THAT(korvex::test::namesIn(output_), IsEmpty());
}

TEST_F(FromCommand, AnEngineStoresNothingOfACommandThatFails) {
  const auto daemon = startExec(recorderCommand());
  EXPECT_EQ(send("head -c 3000000 /dev/zero; exit 2"), 1);
  EXPECT_TRUE(awaitNoProcess());
  EXPECT_THAT(stored(), IsEmpty());
  EXPECT_EQ(send("printf whole"), 0) << errors;
  ASSERT_THAT(stored(), SizeIs(1));
  EXPECT_EQ(contentsOf(output_ + "/" + stored().front()), "whole");
  end(*daemon);
}

TEST_F(FromCommand, AFailingEngineEndsASilentCommand) {
  const auto daemon = startExec("sh -c 'exit 7'");
  EXPECT_EQ(send("echo $$ >\"$0/id\"; exec sleep 1000"), 1);
  EXPECT_THAT(errors, HasSubstr("status 5: the engine exited with code 7"));
  EXPECT_EQ(result["command"], nlohmann::json({{"signal", "SIGTERM"}}));
  EXPECT_TRUE(awaitEndOf("id"));
  end(*daemon);
}

TEST_F(FromCommand, ADaemonThatEndsEndsTheCommand) {
  const auto daemon = start();
  Process sender(shellWords("echo $$ >\"$0/id\"; : >\"$0/ready\"; exec sleep 1000"));
  ASSERT_TRUE(awaitTrace("ready"));
  ASSERT_TRUE(eventually([this] { return !streams(true).empty(); }));
  end(*daemon);
  EXPECT_EQ(finish(sender), 1);
  EXPECT_THAT(errors, HasSubstr("the queue was removed or replaced"));
  EXPECT_TRUE(awaitEndOf("id"));
}

TEST_F(FromCommand, AKilledDaemonEndsTheCommand) {
  const auto daemon = start();
  Process sender({KORVEX_PROGRAM, "send", "--queue", queue_, "--json", "--timeout", "5",
                  "--from-command", "sh", "-c", "echo $$ >\"$0/id\"; exec yes", traces_});
  awaitFlow();
  daemon->killNow();
  EXPECT_EQ(finish(sender), 1);
  EXPECT_THAT(errors, HasSubstr("status 15: "));
  EXPECT_EQ(result["command"], nlohmann::json({{"signal", "SIGTERM"}}));
  EXPECT_TRUE(awaitEndOf("id"));
}

TEST_F(FromCommand, ACommandWithoutEndIsGivenUp) {
  const auto daemon = start();
  Process sender({KORVEX_PROGRAM, "send", "--queue", queue_, "--command-timeout", "1",
                  "--from-command", "sh", "-c", "exec >&-; exec sleep 1000"});
  EXPECT_EQ(finish(sender), 1);
  EXPECT_THAT(errors, HasSubstr("closed its output, but did not end within 1 s"));
  end(*daemon);
  EXPECT_THAT(streams(false), IsEmpty());
}

TEST_P(FromCommandSignal, ReachesTheCommandAndLeavesAnIncompleteStream) {
  const auto daemon = start();
  Process sender(shellWords("echo $$ >\"$0/id\"; : >\"$0/ready\"; exec sleep 1000"));
  ASSERT_TRUE(awaitTrace("ready"));
  ASSERT_TRUE(eventually([this] { return !streams(true).empty(); }));
  sender.signal(GetParam());
  EXPECT_EQ(finish(sender), -GetParam());
  EXPECT_EQ(result["exitCode"], 128 + GetParam());
  const std::string name = std::string("SIG") + ::sigabbrev_np(GetParam());
  EXPECT_EQ(result["command"], nlohmann::json({{"signal", name}}));
  EXPECT_TRUE(awaitEndOf("id"));
  end(*daemon);
  EXPECT_THAT(streams(false), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, FromCommandSignal, testing::Values(SIGINT, SIGTERM, SIGHUP));
