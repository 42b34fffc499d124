// Streams as the input of engines.

#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <unistd.h>

#include "integration/ExecFixture.h"
#include "integration/ToolRun.h"
#include "queue/MessageQueue.h"
#include "support/Receipts.h"

using korvex::test::childrenOf;
using korvex::test::descriptorsOf;
using korvex::test::eventually;
using korvex::test::kAbcReceipt;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

namespace {

class ExecTest : public ExecFixture {
 protected:
  /// The streams are taken, and nobody has seen a process or a descriptor of them since.
  void expectNothingStays(const Process& daemon, std::size_t descriptors) const {
    EXPECT_TRUE(awaitNoProcess());
    EXPECT_TRUE(eventually([&] { return childrenOf(daemon.id()).empty(); })) << "zombies";
    EXPECT_TRUE(eventually([&] { return descriptorsOf(daemon.id()) <= descriptors; }))
        << descriptorsOf(daemon.id()) << " descriptors, before " << descriptors;
  }

  void expectFailure(const Reply& reply, const std::string& text) const {
    EXPECT_EQ(reply.status, 5u);
    EXPECT_EQ(std::string(reply.message), text);
    EXPECT_THAT(stored(), IsEmpty());
  }

  std::string written(const std::string& name) const {
    return korvex::test::contentsOf(output_ + "/" + name);
  }

  static unsigned linesWith(const std::string& text, const std::string& words) {
    std::istringstream lines(text);
    unsigned found = 0;
    for (std::string line; std::getline(lines, line);)
      if (line.find(words) != std::string::npos) ++found;
    return found;
  }
};

std::size_t streamsOfTheLongTest() {
  const char* const number = std::getenv("KORVEX_EXEC_STREAMS");
  return number == nullptr ? 150 : std::stoul(number);
}

}  // namespace

TEST_F(ExecTest, IsStoredUnderTheNameGivenToTheEngine) {
  const auto daemon = startExec(recorderCommand());
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  ASSERT_THAT(stored(), SizeIs(1));
  EXPECT_THAT(stored()[0], MatchesRegex(queue_ + "-[0-9]{8}T[0-9]{6}Z-[0-9]{9}"));
  EXPECT_EQ(written(stored()[0]), "abc");
  end(*daemon);
}

TEST_F(ExecTest, CarriesMoreThanThePipeHolds) {
  const auto daemon = startExec(recorderCommand());
  std::string text;
  for (unsigned i = 0; text.size() < 5000000; ++i) text += std::to_string(i) + " ";
  const auto to = writer();
  to->open();
  for (std::size_t at = 0; at < text.size(); at += 100000) write(*to, text.substr(at, 100000));
  EXPECT_THAT(replyToClose(*to).message, StartsWith("stored bytes=" + std::to_string(text.size())));
  ASSERT_THAT(stored(), SizeIs(1));
  EXPECT_TRUE(written(stored()[0]) == text);
}

TEST_F(ExecTest, CarriesRecordsOfOneByte) {
  const auto daemon = startExec(recorderCommand());
  const auto to = openStream("a");
  for (const char* byte : {"b", "c"}) {
    write(*to, byte);
    to->flush_shm_buffer(kTimeout);
  }
  EXPECT_STREQ(replyToClose(*to).message, kAbcReceipt);
  ASSERT_THAT(stored(), SizeIs(1));
  EXPECT_EQ(written(stored()[0]), "abc");
}

TEST_F(ExecTest, GivesEveryStreamANameOfItsOwn) {
  const auto daemon = startExec(recorderCommand());
  for (int i = 0; i < 10; ++i) EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  EXPECT_THAT(stored(), SizeIs(10));
}

TEST_F(ExecTest, TellsTheEngineWhatTheStreamIs) {
  const auto daemon = startExec(
      script(R"(cat >/dev/null; echo "$KORVEX_QUEUE $KORVEX_OPENED $KORVEX_STREAM" >"$0/names")"));
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  EXPECT_THAT(written("names"), MatchesRegex(queue_ + " [0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}Z " +
                                             queue_ + "-[0-9]{8}T[0-9]{6}Z-[0-9]{9}\n"));
}

TEST_F(ExecTest, LeavesTheEngineTheDaemonsOtherVariables) {
  // Different in the first letter only.
  ::setenv("YORVEX_QUEUE", "kept", 1);
  ::setenv("KORVEX_QUEUE", "replaced", 1);
  const auto daemon =
      startExec(script(R"(cat >/dev/null; env | grep ORVEX_QUEUE | sort >"$0/variables")"));
  ::unsetenv("YORVEX_QUEUE");
  ::unsetenv("KORVEX_QUEUE");
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  EXPECT_EQ(written("variables"), "KORVEX_QUEUE=" + queue_ + "\nYORVEX_QUEUE=kept\n");
}

TEST_F(ExecTest, StartsTheEngineInItsOwnGroupAndSession) {
  const auto daemon = startExec(
      script(R"(cat >/dev/null; read -r line </proc/$$/stat; echo "$$ $line" >"$0/ids")"));
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  std::istringstream ids(written("ids"));
  std::string self, id, name, state, parent, group, session;
  ids >> self >> id >> name >> state >> parent >> group >> session;
  EXPECT_EQ(group, self);
  EXPECT_EQ(session, parent) << "the keeper's";
}

TEST_F(ExecTest, StartsTheEngineWithoutTheDaemonsWaysWithSignals) {
  const auto daemon =
      startExec(script("cat >/dev/null; grep -E ^Sig[BI] /proc/self/status >\"$0/signals\""));
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  // The two behind the first 31 are the C library's, and may be anything.
  EXPECT_THAT(written("signals"), MatchesRegex("SigBlk:\t0{16}\nSigIgn:\t0{7}[01][08]0{7}\n"));
}

TEST_F(ExecTest, GivesTheEngineNothingButTheStandardDescriptors) {
  const int given = ::open("/dev/null", O_RDONLY);  // which the daemon is started with
  ASSERT_GT(given, STDERR_FILENO);
  const auto daemon = startExec(script(R"(cat >/dev/null; ls /proc/$$/fd >"$0/open" & wait)"));
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  ::close(given);
  EXPECT_EQ(written("open"), "0\n1\n2\n");
}

TEST_F(ExecTest, FailsWithTheExitCodeAndTheLastError) {
  const auto daemon = startExec(script("cat >/dev/null; echo first >&2; echo oh no >&2; exit 3"));
  expectFailure(replyTo("abc"), "the engine exited with code 3: oh no");
  EXPECT_TRUE(awaitLog(*daemon, "engine: first"));
}

TEST(Keeper, IsNotForAnybodyElse) {
  const std::vector<std::string> calls[] = {{"--keep-engine"},
                                            {"--keep-engine", "1", "/bin/true", "true"}};
  for (std::vector<std::string> words : calls) {
    words.insert(words.begin(), KORVEXD_PROGRAM);
    const auto run = korvex::test::runProgram(words);
    EXPECT_EQ(run.code, 2);
    EXPECT_EQ(run.errors, "korvexd: --keep-engine is for korvexd itself\n");
  }
}

TEST_F(ExecTest, LogsALastLineThatWasNotEnded) {
  const auto daemon = startExec(script("cat >/dev/null; printf said; printf wrong >&2; exit 3"));
  expectFailure(replyTo("abc"), "the engine exited with code 3: wrong");
  EXPECT_TRUE(awaitLog(*daemon, "engine: said"));
  EXPECT_TRUE(awaitLog(*daemon, "engine: wrong"));
}

TEST_F(ExecTest, FailsWithTheLastOfManyErrors) {
  const auto daemon =
      startExec(script("cat >/dev/null; echo >\"$0/ended\"; until [ -e \"$0/go\" ]; do sleep 0.02; "
                       "done; yes | head -c 42000 >&2; echo oh no >&2; exit 3"));
  const auto to = openStream("abc");
  to->close();
  ASSERT_TRUE(awaitFile("ended"));
  daemon->freeze();  // so that it finds all of it together with the engine's end
  makeFile("go");
  EXPECT_TRUE(awaitNoProcess());
  daemon->signal(SIGCONT);
  EXPECT_TRUE(awaitLog(*daemon, "stream incomplete (the engine exited with code 3: oh no)"));
}

TEST_F(ExecTest, FailsWithTheSignalThatEndedTheEngine) {
  const auto daemon = startExec(script("cat >/dev/null; kill -ABRT $$"));
  expectFailure(replyTo("abc"), "the engine was killed by signal 6");
}

TEST_F(ExecTest, FailsWhenTheEngineEndsBeforeItsInput) {
  const auto daemon = startExec(script("echo bye >&2; exit 0"));
  const auto to = openStream("abc");
  expectFailure(awaitReply(*to), "the engine exited with code 0 before the end of its input: bye");
}

TEST_F(ExecTest, FailsWhenTheEngineClosesItsInput) {
  const auto daemon = startExec(script("exec <&-; echo >\"$0/closed\"; exec sleep 1000"));
  const auto to = openStream("abc");
  ASSERT_TRUE(awaitFile("closed"));
  write(*to, "def");
  to->flush_shm_buffer(kTimeout);
  expectFailure(awaitReply(*to), "the engine closed its input before the end");
  EXPECT_TRUE(awaitNoProcess());
}

TEST_F(ExecTest, FailsWhenTheEngineLeavesInputUnread) {
  const auto daemon = startExec(script("while [ -e /proc/$PPID/fd/4 ]; do sleep 0.01; done"));
  expectFailure(replyTo("abc"),
                "the engine exited with code 0, but left 3 bytes of its input unread");
}

TEST_F(ExecTest, FailsWhenTheProgramCannotBeStarted) {
  makeFile("engine", "#!/nonexistent/interpreter\n", 0700);
  const auto daemon = startExec(output_ + "/engine");
  const auto to = openStream("abc");
  expectFailure(awaitReply(*to), "starting the engine '" + output_ +
                                     "/engine': error 2 (No such file or directory)");
  expectNothingStays(*daemon, descriptorsOf(daemon->id()));
}

TEST_F(ExecTest, RunsNoShellForAFileWithoutOne) {
  makeFile("engine", "cat >/dev/null\n", 0700);
  const auto daemon = startExec(output_ + "/engine");
  const auto to = openStream("abc");
  EXPECT_THAT(awaitReply(*to).message, HasSubstr("error 8 (Exec format error)"));
}

TEST_F(ExecTest, RefusesToStartWithoutAProgram) {
  makeFile("plain", "#!/bin/sh\n", 0600);
  const std::vector<std::pair<std::string, std::string>> wrong = {
      {"no-such-engine x", "looking for the engine 'no-such-engine' in PATH: error 2"},
      {output_ + "/none", "/none': error 2"},
      {output_, "': error 13"},
      {output_ + "/plain", "/plain': error 13"}};
  for (const auto& [command, text] : wrong) {
    Process daemon({KORVEXD_PROGRAM, "--queue", queue_, "--exec", command});
    EXPECT_EQ(daemon.wait(), 1) << command;
    EXPECT_THAT(daemon.errors(), HasSubstr(text));
    EXPECT_FALSE(korvex::test::queueExists(queue_));
  }
}

TEST_F(ExecTest, FindsAProgramRelativeToTheDaemonsFolder) {
  makeFile("engine", "#!/bin/sh\ncat >\"$1\"\n", 0700);
  Process daemon({"/bin/sh", "-c", "cd \"$0\" && exec \"$@\"", output_, KORVEXD_PROGRAM, "--queue",
                  queue_, "--exec", "./engine \"a file\""});
  ASSERT_TRUE(awaitServing(daemon));
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  EXPECT_EQ(written("a file"), "abc");
}

TEST_F(ExecTest, BoundsWhatATalkativeEngineLogs) {
  const auto daemon =
      startExec(script("i=0; while [ $i -lt 20000 ]; do echo line $i; i=$((i+1)); done; "
                       "cat >/dev/null; echo last >&2"));
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  end(*daemon);
  EXPECT_THAT(daemon->errors(), HasSubstr("engine: line 99\n"));
  EXPECT_THAT(daemon->errors(), HasSubstr(" more lines)\n"));
  EXPECT_THAT(daemon->errors(), HasSubstr("engine: last\n"));
  EXPECT_LT(linesWith(daemon->errors(), "engine: line"), 2000u);
}

TEST_F(ExecTest, LogsALineThatComesByteByByte) {
  const auto daemon = startExec(script("printf x; head -c 3 >/dev/null; printf y; cat; echo z"));
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  end(*daemon);
  EXPECT_THAT(daemon->errors(), HasSubstr("engine: xyz\n"));
}

TEST_F(ExecTest, WaitsForNobodyWhoKeepsTheOutputOpen) {
  const auto daemon = startExec(script("cat >/dev/null; setsid sleep 1000 & exit 0"));
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  EXPECT_TRUE(awaitNoProcess()) << "what the engine left ends with it";
}

TEST_F(ExecTest, TellsAProducerThatTheEngineIsFinishing) {
  const auto daemon =
      startExec(script("cat >/dev/null; until [ -e \"$0/go\" ]; do sleep 0.02; done"));
  const auto to = openStream("abc");
  const Reply first = replyToClose(*to);
  EXPECT_EQ(first.status, 0u);
  EXPECT_STREQ(first.message, "finishing");
  makeFile("go");
  EXPECT_TRUE(eventually([&] {
    to->flush_shm_buffer(kTimeout);
    return to->getResponse().message == std::string(kAbcReceipt);
  })) << to->getResponse().message;
}

TEST_F(ExecTest, KeepsTheNextStreamWaitingWhileTheEngineFinishes) {
  const auto daemon = startExec(
      script("\"$1\" \"$0\"; echo >\"$0/ended\"; until [ -e \"$0/go\" ]; do sleep 0.02; done") +
      " " + recorder());
  const auto first = openStream("abc");
  first->close();
  ASSERT_TRUE(awaitFile("ended"));
  const auto second = openStream("def");
  second->flush_shm_buffer(kTimeout);
  second->close();
  makeFile("go");
  EXPECT_TRUE(eventually([&] { return stored().size() == 2; }));
  EXPECT_TRUE(awaitLog(*daemon, "stream complete", 2));
}

TEST_F(ExecTest, KillsAnEngineThatNeverFinishes) {
  const auto daemon = startExec(script("cat >/dev/null; sleep 1000"), {"--exec-timeout", "1"});
  expectFailure(replyTo("abc"), "the engine did not finish within 1 seconds");
  EXPECT_TRUE(awaitNoProcess());
}

TEST_F(ExecTest, KillsAnEngineThatTakesNothing) {
  const auto daemon = startExec(script("sleep 1000"), {"--exec-timeout", "1"});
  const auto to = writer();
  to->open();
  for (int i = 0; i < 15; ++i) write(*to, std::string(100000, 'x'));
  to->flush_shm_buffer(kTimeout);
  expectFailure(awaitReply(*to), "the engine took nothing for 1 seconds");
  EXPECT_TRUE(awaitNoProcess());
}

TEST_F(ExecTest, LetsAProducerTimeOutBehindAHungEngine) {
  const auto daemon = startExec(script("sleep 1000"));
  const auto to = writer(queue_, 1);
  to->open();
  EXPECT_THROW(
      {
        for (int i = 0; i < 100; ++i) write(*to, std::string(100000, 'x'));
      },
      Ov_ErrnoException);
  end(*daemon);  // and this waits for no hung engine
  EXPECT_TRUE(awaitNoProcess());
}

TEST_F(ExecTest, LeavesNothingBehindAfterManyStreams) {
  const auto daemon = startExec(script("case $KORVEX_STREAM in *[02468]) cat >/dev/null;; esac"));
  replyTo("abc");
  EXPECT_TRUE(awaitNoProcess());
  const std::size_t descriptors = descriptorsOf(daemon->id());
  for (std::size_t i = 0; i < streamsOfTheLongTest(); ++i) replyTo("abc");
  expectNothingStays(*daemon, descriptors);
}

TEST_F(ExecTest, EndsAStreamThatIsSilentForTooLong) {
  const auto daemon = startExec(recorderCommand(), {"--idle-timeout", "3"});
  const auto to = openRecorded("abc");
  ASSERT_TRUE(awaitLog(*daemon, "stream incomplete (no batch for 3 seconds)"));
  EXPECT_TRUE(awaitNoProcess());
  expectFailure(awaitReply(*to), "no batch for 3 seconds");
}

TEST_F(ExecTest, TakesEmptyBatchesForSignsOfLife) {
  const auto daemon = startExec(recorderCommand(), {"--idle-timeout", "3"});
  const auto to = openStream("abc");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(4);
  while (std::chrono::steady_clock::now() < end) to->flush_shm_buffer(kTimeout);
  EXPECT_STREQ(replyToClose(*to).message, kAbcReceipt);
}
