// What `korvex clean` removes, and what it leaves.

#include <gmock/gmock.h>
#include <sys/mman.h>

#include "integration/DaemonFixture.h"
#include "integration/ToolRun.h"
#include "support/Namespaces.h"
#include "support/Terminal.h"

namespace {

using korvex::test::eventually;
using korvex::test::queueExists;
using korvex::test::runProgram;
using korvex::test::runTool;
using korvex::test::Terminal;
using korvex::test::ToolRun;
using testing::HasSubstr;

class Clean : public DaemonFixture {
 protected:
  void leaveByADeadDaemon() { start()->killNow(); }

  bool isThere() const { return queueExists(queue_) && queueExists(queue_ + "Response"); }
  bool isGone() const { return !queueExists(queue_) && !queueExists(queue_ + "Response"); }

  /// The tool, asking on a terminal; the answer is not given yet.
  std::unique_ptr<Process> asking(Terminal& terminal) const {
    auto tool = std::make_unique<Process>(std::vector<std::string>{
        "/bin/sh", "-c", "exec \"$0\" clean --queue \"$1\" <\"$2\" >\"$2\"", KORVEX_PROGRAM, queue_,
        terminal.name()});
    EXPECT_TRUE(eventually([&] {
      return terminal.text().find("Remove it? [y/N]") != std::string::npos;
    })) << terminal.text()
        << tool->errors();
    return tool;
  }

  /// Runs a script with the programs as $0 and $1 where nobody else has queues; the test's own
  /// would vanish with everybody's.
  static ToolRun alone(const std::string& script) {
    return runProgram(korvex::test::withOwnMounts(
        {"/bin/sh", "-c", "mount -t tmpfs none /dev/shm || exit 99; " + script, KORVEX_PROGRAM,
         KORVEXD_PROGRAM}));
  }
};

// A daemon with one queue that was killed, and one that serves another; both are waited for.
const char kTwoDaemons[] =
    "\"$1\" --queue dead --discard 2>/dev/null & dead=$!; "
    "\"$1\" --queue live --discard 2>/dev/null & live=$!; "
    "until [ -e /dev/shm/dead -a -e /dev/shm/live ]; do sleep 0.01; done; "
    "kill -9 $dead; wait $dead 2>/dev/null; ";

}  // namespace

TEST_F(Clean, RemovesWhatADeadDaemonLeft) {
  leaveByADeadDaemon();
  const ToolRun run = runTool({"clean", "--yes", "--queue", queue_});
  EXPECT_EQ(run.code, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("\nremoved " + queue_ + "\n"));
  EXPECT_TRUE(isGone());
}

TEST_F(Clean, RefusesWhatADaemonServes) {
  const auto daemon = start();
  const ToolRun run = runTool({"clean", "--yes", "--json", "--queue", queue_});
  EXPECT_EQ(run.code, 1);
  EXPECT_EQ(run.json()["queues"][0]["obstacle"],
            "korvexd (" + std::to_string(daemon->id()) + ") serves it");
  EXPECT_EQ(run.json()["queues"][0]["removed"], false);
  EXPECT_THAT(stream("abc"), HasSubstr("stored bytes=3 "));
  end(*daemon);
}

TEST_F(Clean, OnlyShowsWithoutATerminal) {
  leaveByADeadDaemon();
  const ToolRun run = runTool({"clean", "--queue", queue_});
  EXPECT_EQ(run.code, 1);
  EXPECT_EQ(run.output,
            "remove  " + queue_ + ": no process serves it, messages waiting: 0 (0 B)\n");
  EXPECT_THAT(run.errors, HasSubstr("without a terminal --yes is needed"));
  EXPECT_TRUE(isThere());
}

TEST_F(Clean, AsksOnATerminal) {
  leaveByADeadDaemon();
  for (const char* answer : {"n\n", "\n", "x\n"}) {
    Terminal terminal(80);
    const auto tool = asking(terminal);
    terminal.type(answer);
    EXPECT_EQ(tool->wait(), 1);
    EXPECT_TRUE(isThere()) << answer;
  }
}

TEST_F(Clean, TakesTheLetterYForAYes) {
  for (const char* answer : {"y\n", "y\x04"}) {  // the second ends the input after one letter
    leaveByADeadDaemon();
    Terminal terminal(80);
    const auto tool = asking(terminal);
    terminal.type(answer);
    EXPECT_EQ(tool->wait(), 0) << tool->errors();
    EXPECT_TRUE(isGone());
  }
}

TEST_F(Clean, TakesNothingForAnAnswerThatWasTypedBefore) {
  leaveByADeadDaemon();
  Terminal terminal(80);
  terminal.type("y\n");
  const auto tool = asking(terminal);
  terminal.type("n\n");
  EXPECT_EQ(tool->wait(), 1);
  EXPECT_TRUE(isThere());
}

TEST_F(Clean, TakesNoAnswerFromAPipe) {
  leaveByADeadDaemon();
  const Terminal terminal(80);
  const ToolRun run = runProgram({"/bin/sh", "-c", "echo y | \"$0\" clean --queue \"$1\" >\"$2\"",
                                  KORVEX_PROGRAM, queue_, terminal.name()});
  EXPECT_EQ(run.code, 1);
  EXPECT_THAT(run.errors, HasSubstr("without a terminal --yes is needed"));
  EXPECT_TRUE(isThere());
}

TEST_F(Clean, LeavesWhatALivingProcessHasOpen) {
  const auto daemon = start();
  auto producer = writer();
  producer->open();
  daemon->killNow();
  const ToolRun refused = runTool({"clean", "--yes", "--json", "--queue", queue_});
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(
      refused.json()["queues"][0]["obstacle"],
      HasSubstr(" (" + std::to_string(::getpid()) + ") has it open; end that process first"));
  EXPECT_TRUE(isThere());
  producer.reset();
  EXPECT_EQ(runTool({"clean", "--yes", "--queue", queue_}).code, 0);
  EXPECT_TRUE(isGone());
}

// It opens them between the look and the answer.
TEST_F(Clean, LeavesWhatAProducerOpensMeanwhile) {
  leaveByADeadDaemon();
  Terminal terminal(80);
  const auto tool = asking(terminal);
  const auto producer = writer();
  producer->open();
  terminal.type("y\n");
  EXPECT_EQ(tool->wait(), 1);
  EXPECT_THAT(tool->errors(), HasSubstr("has it open"));
  EXPECT_TRUE(isThere());
}

TEST_F(Clean, SaysHowManyProcessesItCouldNotExamine) {
  if (!korvex::test::isRoot()) GTEST_SKIP() << "needs root to be another user";
  const ToolRun run = runProgram({"/usr/bin/setpriv", "--reuid", "60001", "--clear-groups",
                                  KORVEX_PROGRAM, "clean", "--json", "--queue", queue_});
  if (run.output.empty()) GTEST_SKIP() << run.errors;
  EXPECT_GT(run.json()["unexaminedProcesses"], 0);
}

TEST_F(Clean, EndsByASignalInPlaceOfAnAnswer) {
  leaveByADeadDaemon();
  Terminal terminal(80);
  const auto tool = asking(terminal);
  tool->signal(SIGTERM);
  EXPECT_EQ(tool->wait(), -SIGTERM);
  EXPECT_TRUE(isThere());
}

// It starts between the look and the answer.
TEST_F(Clean, LeavesADaemonsQueuesThatStartsMeanwhile) {
  leaveByADeadDaemon();
  Terminal terminal(80);
  const auto tool = asking(terminal);
  const auto daemon = start({"--replace"});
  terminal.type("y\n");
  EXPECT_EQ(tool->wait(), 1);
  EXPECT_THAT(tool->errors(), HasSubstr("korvex: " + queue_ + " was kept: queue " + queue_ +
                                        " is served by another daemon\n"));
  EXPECT_THAT(stream("abc"), HasSubstr("stored bytes=3 "));
  end(*daemon);
}

// In a container that shares /dev/shm, where the claim alone tells.
TEST_F(Clean, LeavesWhatADaemonServesThatCannotBeSeen) {
  const auto daemon = start();
  const auto inside = [this](std::vector<std::string> words) {
    words.insert(words.begin(), {"/usr/bin/unshare", korvex::test::isRoot() ? "-pfm" : "-Urpfm",
                                 "--mount-proc", KORVEX_PROGRAM});
    words.insert(words.end(), {"--json", "--queue", queue_});
    return runProgram(words);
  };
  const ToolRun status = inside({"status"});
  if (status.output.empty()) GTEST_SKIP() << status.errors;
  EXPECT_EQ(status.json()["queues"][0]["state"], "unknown");
  const ToolRun clean = inside({"clean", "--yes"});
  EXPECT_EQ(clean.code, 1);
  EXPECT_EQ(clean.json()["queues"][0]["obstacle"],
            "queue " + queue_ + " is served by another daemon");
  EXPECT_THAT(stream("abc"), HasSubstr("stored bytes=3 "));
  end(*daemon);
}

TEST_F(Clean, FailsForAQueueThatIsNotThere) {
  const ToolRun run = runTool({"clean", "--yes", "--queue", queue_});
  EXPECT_EQ(run.code, 1);
  EXPECT_EQ(run.errors, "korvex: queue '" + queue_ + "' does not exist\n");
}

TEST_F(Clean, TakesHalfAPairOnlyByName) {
  const std::string replies = queue_ + "Response";
  leaveByADeadDaemon();
  ASSERT_EQ(::shm_unlink(queue_.c_str()), 0);
  const ToolRun run = runTool({"clean", "--json"});  // removes nothing
  const nlohmann::json found = run.json();
  bool isFound = false;
  for (const auto& queue : found["queues"]) {
    if (queue["name"] != queue_) continue;
    isFound = true;
    EXPECT_THAT(queue["obstacle"], HasSubstr("only one of its two queues is there"));
  }
  EXPECT_TRUE(isFound);
  EXPECT_EQ(runTool({"clean", "--yes", "--queue", queue_}).code, 0);
  EXPECT_FALSE(queueExists(replies));
}

TEST_F(Clean, OfEverythingLeavesWhatIsServedOrNoQueue) {
  const ToolRun run =
      alone(std::string(kTwoDaemons) +
            "true & wait $!; half=.korvexd-$!-$(stat -Lc %i /proc/self/ns/pid)-1-2; "
            "cp /dev/shm/live /dev/shm/$half; head -c 4096 /dev/zero >/dev/shm/other; "
            "\"$0\" clean --yes; code=$?; ls -A /dev/shm; kill $live; wait $live; exit $code");
  if (run.code == 99 || run.errors.rfind("unshare", 0) == 0) GTEST_SKIP() << run.errors;
  EXPECT_EQ(run.code, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("remove  dead: no process serves it"));
  EXPECT_THAT(run.output, HasSubstr("keep    live: korvexd ("));
  EXPECT_THAT(run.output, HasSubstr("removed dead\nremoved .korvexd-"));
  EXPECT_THAT(run.output, testing::EndsWith("\nlive\nliveResponse\nother\n"));
}

// A queue is blank before its creator writes to it, but so are other programs' objects.
TEST_F(Clean, LeavesBlankPairsUnlessNamed) {
  struct Row {
    const char* make;
    int code;  // of removing it by name
  };
  for (const Row& row : {Row{": >", 0}, Row{"head -c 4096 /dev/zero >", 0},
                         Row{"(head -c 4096 /dev/zero; echo data) >", 1}}) {
    const std::string make = row.make;
    const ToolRun run = alone(make + "/dev/shm/other; " + make +
                              "/dev/shm/otherResponse; \"$0\" clean --yes || exit 98; "
                              "ls /dev/shm; \"$0\" clean --yes --queue other");
    if (run.code == 99 || run.errors.rfind("unshare", 0) == 0) GTEST_SKIP() << run.errors;
    EXPECT_THAT(run.output, HasSubstr("keep    other: it was never finished")) << make;
    EXPECT_THAT(run.output, HasSubstr("\nother\notherResponse\n")) << make;
    EXPECT_EQ(run.code, row.code) << make << run.errors;
  }
}

TEST_F(Clean, OfNothingIsDone) {
  const ToolRun run = alone("\"$0\" clean");
  if (run.code == 99 || run.errors.rfind("unshare", 0) == 0) GTEST_SKIP() << run.errors;
  EXPECT_EQ(run.code, 0) << run.errors;
  EXPECT_EQ(run.output, "no queues in shared memory\n");
}
