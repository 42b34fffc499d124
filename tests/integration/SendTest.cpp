// The command-line tool as a person meets it: the real program, mostly with the real daemon.

#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "queue/MessageQueue.h"
#include "support/Await.h"
#include "support/FakeDaemon.h"
#include "support/Process.h"
#include "support/Queues.h"
#include "support/Receipts.h"
#include "support/TemporaryFolder.h"
#include "support/WireFormat.h"

namespace {

using korvex::test::contentsOf;
using korvex::test::eventually;
using korvex::test::FakeDaemon;
using korvex::test::kAbcReceipt;
using korvex::test::kClose;
using korvex::test::namesIn;
using korvex::test::Process;
using korvex::test::replyTo;
using korvex::test::staySilent;
using testing::AnyOf;
using testing::Eq;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using Words = std::vector<std::string>;

const std::string kEmptyDigest = "99aa06d3014798d86001c324468d497f";

bool isServed(const std::string& queue) {
  return korvex::QueueView(queue).state() == korvex::QueueView::State::Sound &&
         korvex::QueueView(queue + "Response").state() == korvex::QueueView::State::Sound;
}

/// Bytes without a pattern that a lost or doubled block could hide in.
std::string noise(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint64_t state = 88172645463325252;
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    byte = static_cast<char>(state);
  }
  return bytes;
}

/// What a finished run of the tool left.
struct Result {
  int code;
  std::string output;
  std::string errors;

  nlohmann::json json() const { return nlohmann::json::parse(output); }
};

Result resultOf(Process& process) {
  const auto code = process.wait();
  EXPECT_TRUE(code) << "still running";
  return {code.value_or(-1), process.output(), process.errors()};
}

Result run(const Words& command) {
  Process process(command);
  return resultOf(process);
}

/// Files to send, a queue's name and, when a test starts it, a daemon.
class SendCommand : public testing::Test {
 protected:
  std::string file(const std::string& name, const std::string& content) const {
    std::ofstream(folder / name, std::ios::binary) << content;
    return folder / name;
  }

  void startDaemon(const Words& sink) {
    Words command = {KORVEXD_PROGRAM, "--queue", queue, "--stats", statistics};
    command.insert(command.end(), sink.begin(), sink.end());
    daemon = std::make_unique<Process>(command);
    ASSERT_TRUE(eventually([this] { return isServed(queue); }));
  }

  void startStoringDaemon() { startDaemon({"--output", stored}); }

  Words sendCommand(const Words& words) const {
    Words command = {KORVEX_PROGRAM, "send", "--queue", queue};
    command.insert(command.end(), words.begin(), words.end());
    return command;
  }

  Result send(const Words& words) const { return run(sendCommand(words)); }

  /// Runs a shell's line, in which "$0" is the tool and "$1" the queue.
  Result shell(const std::string& line) const {
    return run({"/bin/sh", "-c", line, KORVEX_PROGRAM, queue});
  }

  /// The data of the only stream that is stored.
  std::string storedData() const {
    const auto streams = namesIn(stored);
    EXPECT_THAT(streams, SizeIs(1));
    return streams.empty() ? "" : contentsOf(stored + "/" + streams.front() + "/data");
  }

  /// Waits until the daemon has taken data.
  void awaitFlow() const {
    ASSERT_TRUE(eventually([this] {
      std::ifstream file(statistics);
      const auto stats = nlohmann::json::parse(file, nullptr, false);
      return !stats.is_discarded() && stats["total"]["bytes"] > 0;
    }));
  }

  korvex::test::TemporaryFolder folder;
  std::string stored = folder.makeFolder("stored");
  std::string statistics = folder / "statistics";
  std::string queue = korvex::test::uniqueQueueName();
  korvex::test::QueueRemover remover{queue};
  std::unique_ptr<Process> daemon;
};

}  // namespace

TEST_F(SendCommand, AFileArrivesIdentical) {
  startStoringDaemon();
  const Result result = send({file("a", "abc")});
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, MatchesRegex("sent 3 bytes in 1 segments, [^\n]*/s: "
                                          "stored and verified\n"));
  EXPECT_EQ(storedData(), "abc");
}

TEST_F(SendCommand, FilesArriveAsOneStream) {
  startStoringDaemon();
  const Result result =
      send({"--json", file("a", "first"), file("empty", ""), file("b", "second")});
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(storedData(), "firstsecond");
  EXPECT_EQ(result.json()["bytes"], 11);
  EXPECT_EQ(result.json()["segments"], 2);
  EXPECT_EQ(result.json()["xxh128"], "dbd08219cbc4fa163f7ab9dc44109cbc");
  EXPECT_EQ(result.json()["verified"], true);
}

TEST_F(SendCommand, StandardInputArrivesIdentical) {
  startStoringDaemon();
  EXPECT_EQ(shell("(printf ab; printf c) | \"$0\" send --queue \"$1\" --quiet").code, 0);
  EXPECT_EQ(storedData(), "abc");
}

TEST_F(SendCommand, EmptyInputIsAStreamToo) {
  startStoringDaemon();
  const Result result = shell("\"$0\" send --queue \"$1\" --json </dev/null");
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.json()["xxh128"], kEmptyDigest);
  EXPECT_EQ(result.json()["segments"], 0);
  EXPECT_EQ(storedData(), "");
}

TEST_F(SendCommand, ALargeFileArrivesIdentical) {
  startStoringDaemon();
  const std::string content = noise((48 << 20) + 4711);
  const Result result = send({"--json", "--segment-size", "3M", file("large", content)});
  EXPECT_EQ(result.code, 0) << result.errors;
  EXPECT_EQ(result.json()["segments"], 17);
  EXPECT_TRUE(storedData() == content);
}

TEST_F(SendCommand, ALargePipeArrivesIdentical) {
  startStoringDaemon();
  const std::string content = noise((20 << 20) + 1);
  const std::string name = file("large", content);
  EXPECT_EQ(shell("cat " + name + " | \"$0\" send --queue \"$1\" --quiet").code, 0);
  EXPECT_TRUE(storedData() == content);
}

TEST_F(SendCommand, OddSegmentSizesArriveIdentical) {
  startDaemon({"--output", stored, "--max-message-size", "100"});
  const std::string content = noise(10007);
  EXPECT_EQ(send({"--segment-size", "7", file("a", content)}).code, 0);
  EXPECT_TRUE(storedData() == content);
}

TEST_F(SendCommand, ADiscardingDaemonVerifiesStreamAfterStream) {
  startDaemon({"--discard"});
  const std::string name = file("a", noise(300000));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(send({"--quiet", name}).code, 0);
}

TEST_F(SendCommand, AMissingQueueIsNamed) {
  const Result result = send({file("a", "abc")});
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.errors, "korvex: queue '" + queue +
                               "': No such file or directory; korvexd must be running and serve "
                               "this queue\n");
}

TEST_F(SendCommand, AClosedStandardInputCannotBeRead) {
  const Result result = shell("exec \"$0\" send --queue \"$1\" <&-");
  EXPECT_EQ(result.code, 1);
  EXPECT_THAT(result.errors, HasSubstr("cannot read standard input: Bad file descriptor\n"));
}

TEST_F(SendCommand, ADirectoryIsRefused) {
  startStoringDaemon();
  const Result result = send({file("a", "abc"), stored});
  EXPECT_EQ(result.code, 1);
  EXPECT_THAT(result.errors, HasSubstr("cannot read '" + stored + "': Is a directory\n"));
  EXPECT_THAT(namesIn(stored), IsEmpty());
}

TEST_F(SendCommand, AReadErrorInMidstreamLeavesItIncomplete) {
  startStoringDaemon();
  const Result result = send({file("a", "abc"), "/proc/self/mem"});
  EXPECT_EQ(result.code, 1);
  EXPECT_THAT(result.errors, HasSubstr("cannot read '/proc/self/mem': Input/output error\n"));
  ASSERT_THAT(namesIn(stored), SizeIs(1));
  EXPECT_THAT(namesIn(stored).front(), testing::EndsWith(".partial"));
}

TEST_F(SendCommand, AFailingSinkIsTold) {
  startStoringDaemon();
  ASSERT_EQ(::rmdir(stored.c_str()), 0);
  const Result result = send({"--json", file("a", "abc")});
  EXPECT_EQ(result.code, 1);
  EXPECT_THAT(result.errors, HasSubstr("failed: status 5: "));
  EXPECT_EQ(result.json()["status"], 5);
  EXPECT_EQ(result.json()["verified"], false);
}

TEST_F(SendCommand, FailsWithinItsTimeoutWhenTheDaemonIsKilled) {
  startDaemon({"--discard"});
  Process sender(sendCommand({"--timeout", "2", "/dev/zero"}));
  awaitFlow();
  daemon->killNow();
  const Result result = resultOf(sender);
  EXPECT_EQ(result.code, 1);
  EXPECT_THAT(result.errors, HasSubstr("failed: status 15: "));
}

TEST_F(SendCommand, FailsAtOnceWhenTheDaemonEnds) {
  startDaemon({"--discard"});
  Process sender(sendCommand({"--timeout", "86400", "/dev/zero"}));
  awaitFlow();
  daemon->signal(SIGTERM);
  const Result result = resultOf(sender);
  EXPECT_EQ(result.code, 1);
  EXPECT_THAT(result.errors, HasSubstr("removed or replaced"));
}

TEST_F(SendCommand, NoticesTheDaemonsEndWhileAPipeIsSilent) {
  startDaemon({"--discard"});
  const std::string pipe = folder / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  Process sender(sendCommand({"--timeout", "86400", pipe}));
  const int writer = ::open(pipe.c_str(), O_WRONLY | O_CLOEXEC);
  daemon->signal(SIGTERM);
  const Result result = resultOf(sender);
  ::close(writer);
  EXPECT_EQ(result.code, 1);
  EXPECT_THAT(result.errors, HasSubstr("removed or replaced"));
}

TEST_F(SendCommand, NoticesTheDaemonsEndWithoutAPipesWriter) {
  startStoringDaemon();
  const std::string pipe = folder / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  Process sender(sendCommand({"--timeout", "86400", pipe}));
  ASSERT_TRUE(eventually([this] { return !namesIn(stored).empty(); }));
  daemon->signal(SIGTERM);
  const Result result = resultOf(sender);
  EXPECT_EQ(result.code, 1);
  EXPECT_THAT(result.errors, HasSubstr("removed or replaced"));
}

TEST_F(SendCommand, IsNotHurtByRepliesWaitingInTheDaemon) {
  startDaemon({"--discard"});
  korvex::MessageQueue batches(queue, korvex::MessageQueue::Clock::now());
  for (int i = 0; i < 30; ++i) {
    const auto deadline = korvex::MessageQueue::Clock::now() + korvex::test::kPatience;
    ASSERT_TRUE(batches.sendBefore("bad", 3, 1, deadline));
  }
  const Result result = send({file("a", "abc")});
  EXPECT_EQ(result.code, 0) << result.errors;
}

TEST_F(SendCommand, IsNeverVerifiedByADeadDaemon) {
  startDaemon({"--discard"});
  const std::string pipe = folder / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  Process sender(sendCommand({"--timeout", "20", "--receipt-timeout", "1", pipe}));
  // The tool opens its input when the daemon has taken the open record, not earlier.
  const int writer = ::open(pipe.c_str(), O_WRONLY | O_CLOEXEC);
  daemon->killNow();
  ASSERT_EQ(::write(writer, "abc", 3), 3);
  ::close(writer);
  // 3 unless the daemon died with the queue's lock in its hands.
  EXPECT_THAT(resultOf(sender).code, AnyOf(Eq(3), Eq(1)));
}

TEST_F(SendCommand, EndsByTheSignalAndLeavesAnIncompleteStream) {
  startDaemon({"--discard"});
  Process sender(sendCommand({"--json", "/dev/zero"}));
  awaitFlow();
  sender.signal(SIGTERM);
  const Result result = resultOf(sender);
  EXPECT_EQ(result.code, -SIGTERM);
  EXPECT_EQ(result.json()["exitCode"], 128 + SIGTERM);
  EXPECT_EQ(send({"--quiet", file("a", "abc")}).code, 0);
}

TEST_F(SendCommand, AKilledSenderDoesNotHurtTheNextStream) {
  startDaemon({"--discard"});
  const std::string pipe = folder / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  Process sender(sendCommand({pipe}));
  const int writer = ::open(pipe.c_str(), O_WRONLY | O_CLOEXEC);
  sender.killNow();
  ::close(writer);
  EXPECT_EQ(send({"--quiet", file("a", "abc")}).code, 0);
}

TEST_F(SendCommand, AWrongDigestIsNeverVerified) {
  FakeDaemon fake;
  queue = fake.queue();
  fake.serve(replyTo(kClose, 0, kAbcReceipt));
  const Result result = send({file("a", "abd")});
  EXPECT_EQ(result.code, 1);
  EXPECT_THAT(result.errors, HasSubstr("sent bytes=3 xxh128="));
  EXPECT_THAT(result.errors, HasSubstr(kAbcReceipt));
}

TEST_F(SendCommand, AMissingReceiptHasItsOwnExitCode) {
  FakeDaemon fake;
  queue = fake.queue();
  fake.serve(staySilent);
  const Result result = send({"--json", "--receipt-timeout", "1", file("a", "abc")});
  EXPECT_EQ(result.code, 3);
  EXPECT_EQ(result.errors, "korvex: sent, but no receipt came from the daemon within 1 s\n");
  EXPECT_EQ(result.json()["exitCode"], 3);
}

TEST_F(SendCommand, AnEarlierReceiptNeverVerifies) {
  FakeDaemon fake;
  queue = fake.queue();
  fake.reply(0, kAbcReceipt);
  fake.serve(staySilent);
  EXPECT_EQ(send({"--receipt-timeout", "1", file("a", "abc")}).code, 3);
}

TEST_F(SendCommand, AnEarlierErrorDoesNotFailTheStream) {
  FakeDaemon fake;
  queue = fake.queue();
  fake.reply(5, "an earlier stream's disk was full");
  fake.serve(replyTo(kClose, 0, kAbcReceipt));
  EXPECT_EQ(send({file("a", "abc")}).code, 0);
}

TEST_F(SendCommand, WithoutAReceiptItSaysSo) {
  FakeDaemon fake;
  queue = fake.queue();
  fake.serve(staySilent);
  const Result result = send({"--no-receipt", file("a", "abc")});
  EXPECT_EQ(result.code, 0);
  EXPECT_THAT(result.errors, HasSubstr(": sent (not verified)\n"));
}

TEST_F(SendCommand, AReplacedQueueIsNoticed) {
  FakeDaemon fake;
  queue = fake.queue();
  fake.serve(staySilent);
  Process sender(sendCommand({"--timeout", "86400", "/dev/zero"}));
  fake.awaitRecord(1);
  fake.replaceQueues();
  const Result result = resultOf(sender);
  EXPECT_EQ(result.code, 1);
  EXPECT_THAT(result.errors, HasSubstr("removed or replaced"));
}

TEST_F(SendCommand, ATruncatedQueueIsNoticed) {
  for (const char* ending : {"", "Response"}) {
    const FakeDaemon takingNothing;
    queue = takingNothing.queue();
    Process sender(sendCommand({"--timeout", "86400", "/dev/zero"}));
    ASSERT_TRUE(eventually([&] { return takingNothing.waiting() > 0; }));
    ASSERT_EQ(::truncate(("/dev/shm/" + queue + ending).c_str(), 0), 0);
    const Result result = resultOf(sender);
    EXPECT_EQ(result.code, 1) << ending;
    EXPECT_THAT(result.errors,
                AnyOf(HasSubstr("removed or replaced"), HasSubstr("memory was truncated")));
  }
}

// In the middle of a call, mostly: it sends as fast as it can.
TEST_F(SendCommand, SurvivesAQueueThatIsCutUnderIt) {
  startDaemon({"--discard"});
  const auto isLogged = [this](const std::string& text, int times) {
    return eventually([&] {
      std::size_t at = 0;
      for (int i = 0; i < times; ++i) {
        at = daemon->errors().find(text, at);
        if (at == std::string::npos) return false;
        at += text.size();
      }
      return true;
    });
  };
  for (int round = 1; round <= 4; ++round) {
    Process sender(sendCommand({"--json", "/dev/zero"}));
    ASSERT_TRUE(isLogged(": stream opened", round)) << daemon->errors();
    ASSERT_EQ(::truncate(("/dev/shm/" + queue).c_str(), 0), 0);
    const Result result = resultOf(sender);
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(
        result.json()["message"].get<std::string>(),
        AnyOf(HasSubstr("the queue's memory was truncated"), HasSubstr("removed or replaced")));
    ASSERT_TRUE(isLogged(": served again", round)) << daemon->errors();
  }
}

TEST_F(SendCommand, TellsWhatItWaitsForWhenASignalAsks) {
  FakeDaemon fake;
  queue = fake.queue();
  fake.serve(staySilent);
  Process sender(sendCommand({file("a", "abc")}));
  fake.awaitRecord(kClose);
  ASSERT_TRUE(eventually([&] {
    sender.signal(SIGUSR1);
    return sender.errors().find("korvex: waiting for the receipt: 3 B sent 0:") !=
           std::string::npos;
  })) << sender.errors();
  fake.reply(0, "finishing");
  ASSERT_TRUE(eventually([&] {
    sender.signal(SIGUSR1);
    return sender.errors().find("korvex: the engine is finishing: 3 B sent 0:") !=
           std::string::npos;
  })) << sender.errors();
  fake.reply(0, kAbcReceipt);
  EXPECT_EQ(resultOf(sender).code, 0);
}

TEST_F(SendCommand, EndsThoughNobodyReadsWhatASignalAsksFor) {
  startDaemon({"--discard"});
  const std::string input = folder / "input";
  const std::string errors = folder / "errors";
  ASSERT_EQ(::mkfifo(input.c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo(errors.c_str(), 0600), 0);
  const int full = ::open(errors.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  const std::string page(4096, 'x');
  while (::write(full, page.data(), page.size()) > 0) {
  }
  Process sender({"/bin/sh", "-c",
                  "exec \"$0\" send --quiet --segment-size 1 --queue \"$1\" \"$2\" 2>\"$3\"",
                  KORVEX_PROGRAM, queue, input, errors});
  const int writer = ::open(input.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(::write(writer, page.data(), page.size()), 4096);
  awaitFlow();
  sender.signal(SIGUSR1);
  EXPECT_TRUE(sender.awaitSignalsTaken());
  ::close(writer);
  EXPECT_EQ(resultOf(sender).code, 0);
  ::close(full);
}

TEST_F(SendCommand, WrongUsageTouchesNothing) {
  for (const Words& words :
       {Words{"--fast"}, Words{"--timeout", "0"}, Words{"--timeout", "86401"},
        Words{"--segment-size", "0"}, Words{"--segment-size", "2T"}, Words{"--receipt-timeout"}}) {
    const Result result = send(words);
    EXPECT_EQ(result.code, 2) << words.front();
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, HasSubstr(words.front()));
  }
  EXPECT_EQ(run({KORVEX_PROGRAM}).code, 2);
  EXPECT_EQ(run({KORVEX_PROGRAM, "send"}).code, 2);
}

TEST_F(SendCommand, HelpNamesTheSubcommand) {
  const Result result = run({KORVEX_PROGRAM, "--help"});
  EXPECT_EQ(result.code, 0);
  EXPECT_THAT(result.output, HasSubstr("send"));
  EXPECT_EQ(result.errors, "");
}

TEST_F(SendCommand, FailsWhenNobodyLearnsTheResult) {
  startDaemon({"--discard"});
  const Result full = shell("printf abc | \"$0\" send --queue \"$1\" --json >/dev/full");
  EXPECT_EQ(full.code, 1);
  EXPECT_EQ(full.errors,
            "korvex: cannot write the result to standard output: No space left on device\n");
  EXPECT_EQ(shell("\"$0\" --help >/dev/full").code, 1);
  EXPECT_EQ(shell("\"$0\" --version >/dev/full").code, 1);
  EXPECT_EQ(shell("printf abc | \"$0\" send --queue \"$1\" >/dev/full").code, 0) << "nothing asked";
  const Result closed = shell("printf abc | \"$0\" send --queue \"$1\" --json >&-");
  EXPECT_EQ(closed.code, 1);
  EXPECT_EQ(closed.errors,
            "korvex: cannot write the result to standard output: Bad file descriptor\n");
  EXPECT_EQ(shell("printf abc | \"$0\" send --queue \"$1\" >&-").code, 0) << "nothing asked";
}
