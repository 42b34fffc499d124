#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "send/Send.h"
#include "support/Await.h"
#include "support/FakeDaemon.h"
#include "support/Receipts.h"
#include "support/TemporaryFolder.h"
#include "support/WireFormat.h"

namespace {

using korvex::test::eventually;
using korvex::test::FakeDaemon;
using korvex::test::kAbcReceipt;
using korvex::test::kClose;
using korvex::test::kData;
using korvex::test::kEmptyReceipt;
using korvex::test::replyTo;
using korvex::test::staySilent;
using korvex::tool::Ending;
using korvex::tool::Progress;
using korvex::tool::runSend;
using korvex::tool::SendOptions;
using korvex::tool::StopSignal;
using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;

/// Sends a shell's output to a daemon in this process. In the shell's line $0 is a folder.
class SendFromCommand : public testing::Test {
 protected:
  SendFromCommand() {
    options.queue = daemon.queue();
    options.json = true;
    options.fromCommand = true;
  }

  int send(const std::string& line) {
    options.command = {"sh", "-c", line, folder.path()};
    ending = runSend(options, stop, Progress(), out, errors);
    daemon.finish();
    return ending.exitCode;
  }

  json result() const { return json::parse(out.str()); }

  /// Runs beside the sender, once the daemon has taken more batches than a stream's begin has.
  template <typename Action>
  std::future<void> whenKeptAlive(Action action) {
    options.keepAlive = std::chrono::milliseconds(1);
    return std::async(std::launch::async, [this, action] {
      EXPECT_TRUE(eventually([this] { return daemon.types() == "0"; }));
      const std::size_t before = daemon.batches();
      EXPECT_TRUE(eventually([&] { return daemon.batches() > before + 1; }));
      action();
    });
  }

  /// Lets a command go on that reads from the pipe.
  void go() const {
    int pipe = -1;
    const auto open = [&] {
      pipe = ::open((folder / "go").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      return pipe >= 0;
    };
    EXPECT_TRUE(eventually(open));
    ::close(pipe);
  }

  korvex::test::TemporaryFolder folder;
  FakeDaemon daemon;
  SendOptions options;
  StopSignal stop;
  std::ostringstream out;
  std::ostringstream errors;
  Ending ending = {};
};

}  // namespace

TEST_F(SendFromCommand, ClosesTheStreamOfACommandThatEndsWell) {
  daemon.serve(replyTo(kClose, 0, kAbcReceipt));
  EXPECT_EQ(send("printf abc"), 0);
  EXPECT_EQ(daemon.types(), "0123");
  EXPECT_EQ(result()["command"], json({{"exitCode", 0}}));
  EXPECT_EQ(result()["verified"], true);
}

TEST_F(SendFromCommand, StopsTheStreamOfACommandThatFails) {
  daemon.serve(staySilent);
  EXPECT_EQ(send("printf abc; exit 3"), 1);
  EXPECT_THAT(daemon.types(), EndsWith("4"));
  EXPECT_EQ(errors.str(), "korvex: the command 'sh' ended with exit code 3\n");
  EXPECT_EQ(result()["command"], json({{"exitCode", 3}}));
  EXPECT_EQ(result()["exitCode"], 1);
  EXPECT_EQ(result()["status"], EIO);
}

TEST_F(SendFromCommand, StopsTheStreamOfACommandThatIsKilled) {
  daemon.serve(staySilent);
  EXPECT_EQ(send("head -c 100000 /dev/zero; kill -9 $$"), 1);
  EXPECT_THAT(daemon.types(), EndsWith("4"));
  EXPECT_EQ(result()["command"], json({{"signal", "SIGKILL"}}));
}

TEST_F(SendFromCommand, OpensNoStreamForACommandThatCannotStart) {
  daemon.serve(staySilent);
  options.command = {"korvex-test-no-such"};
  EXPECT_EQ(runSend(options, stop, Progress(), out, errors).exitCode, 1);
  daemon.finish();
  EXPECT_EQ(daemon.types(), "");
  EXPECT_FALSE(result().contains("command"));
  EXPECT_EQ(result()["status"], ENOENT);
}

TEST_F(SendFromCommand, StartsNoCommandWithoutAQueue) {
  options.queue = "korvex-test-no-such-queue";
  EXPECT_EQ(send("true"), 1);
  EXPECT_FALSE(result().contains("command"));
}

TEST_F(SendFromCommand, AMissingReceiptHasItsOwnExitCode) {
  options.receiptTimeout = 1;
  daemon.serve(staySilent);
  EXPECT_EQ(send("printf abc"), 3);
  EXPECT_EQ(result()["command"], json({{"exitCode", 0}}));
}

TEST_F(SendFromCommand, EndsTheCommandWhenTheDaemonFails) {
  daemon.serve(replyTo(kData, 28, "disk full"));
  EXPECT_EQ(send("echo $$ >\"$0/id\"; exec yes"), 1);
  EXPECT_THAT(errors.str(), HasSubstr("status 28: disk full"));
  EXPECT_EQ(result()["command"], json({{"signal", "SIGTERM"}}));
  EXPECT_NE(::kill(std::stoi(korvex::test::contentsOf(folder / "id")), 0), 0);
}

TEST_F(SendFromCommand, NoticesAFailureWhileTheCommandIsSilent) {
  daemon.serve(staySilent);
  const auto failing = whenKeptAlive([this] { daemon.reply(5, "the engine exited"); });
  EXPECT_EQ(send("exec sleep 1000"), 1);
  EXPECT_THAT(errors.str(), HasSubstr("status 5: the engine exited"));
  EXPECT_EQ(result()["command"], json({{"signal", "SIGTERM"}}));
}

TEST_F(SendFromCommand, KeepsTheStreamAliveWhileTheCommandIsSilent) {
  ASSERT_EQ(::mkfifo((folder / "go").c_str(), 0600), 0);
  daemon.serve(replyTo(kClose, 0, kEmptyReceipt));
  const auto going = whenKeptAlive([this] { go(); });
  EXPECT_EQ(send("cat \"$0/go\""), 0);
  EXPECT_EQ(daemon.types(), "03");
}

TEST_F(SendFromCommand, KeepsTheStreamAliveAfterTheOutput) {
  ASSERT_EQ(::mkfifo((folder / "go").c_str(), 0600), 0);
  daemon.serve(replyTo(kClose, 0, kEmptyReceipt));
  const auto going = whenKeptAlive([this] { go(); });
  EXPECT_EQ(send("exec >&-; : <\"$0/go\""), 0);
  EXPECT_EQ(daemon.types(), "03");
}

TEST_F(SendFromCommand, EndsBySignalWithItsCommand) {
  daemon.serve(staySilent);
  const auto stopping = whenKeptAlive([this] { stop.note(SIGHUP); });
  EXPECT_EQ(send("exec sleep 1000"), 128 + SIGHUP);
  EXPECT_EQ(ending.signal, SIGHUP);
  EXPECT_EQ(daemon.types(), "04");
  EXPECT_EQ(result()["command"], json({{"signal", "SIGHUP"}}));
}
