// Files are what programs run out of, and queues are files too.

#include <fstream>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include "integration/ExecFixture.h"
#include "support/Receipts.h"
#include "support/Terminal.h"

using korvex::test::eventually;
using korvex::test::kAbcReceipt;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

const char kTooMany[] = "Too many open files";
constexpr unsigned kFewest = 4;
constexpr unsigned kEnough = 40;
constexpr int kNotLoaded = 127;  // the exit code of the system's loader

class DescriptorLimit : public ExecFixture {
 protected:
  static Process runWith(unsigned limit, const std::vector<std::string>& command,
                         const std::string& input = "/dev/null") {
    std::vector<std::string> words = {"/bin/sh", "-c",
                                      "exec <\"$1\"; shift; ulimit -n \"$0\"; exec \"$@\"",
                                      std::to_string(limit), input};
    words.insert(words.end(), command.begin(), command.end());
    return Process(words);
  }

  bool isServingOrOver(Process& daemon) const {
    return daemon.errors().find("serving " + queue_ + ",") != std::string::npos ||
           daemon.wait(std::chrono::milliseconds(0));
  }

  /// Sends under every limit, and returns what the tool said when it did not.
  std::vector<std::string> expectToSendOrToSayWhy(const std::vector<std::string>& what,
                                                  const std::string& input = "/dev/null") {
    const auto daemon = start();
    std::vector<std::string> words = {KORVEX_PROGRAM, "send", "--queue", queue_};
    words.insert(words.end(), what.begin(), what.end());
    std::vector<std::string> refusals;
    std::size_t sent = 0;
    for (unsigned limit = kFewest; limit <= kEnough; ++limit) {
      SCOPED_TRACE("limit " + std::to_string(limit));
      Process sender = runWith(limit, words, input);
      if (sender.wait() == 0) ++sent;
      if (sender.wait() == 0 || sender.wait() == kNotLoaded) continue;
      EXPECT_EQ(sender.wait(), 1);
      EXPECT_THAT(sender.errors(), StartsWith("korvex: "));
      EXPECT_THAT(sender.errors(), HasSubstr(kTooMany));
      refusals.push_back(sender.errors());
    }
    EXPECT_GE(sent, 1u);
    EXPECT_EQ(streams(false).size(), sent);
    end(*daemon);
    return refusals;
  }

  static void setLimit(const Process& daemon, rlim_t limit) {
    rlimit limits = {};
    ASSERT_EQ(::prlimit(daemon.id(), RLIMIT_NOFILE, nullptr, &limits), 0);
    limits.rlim_cur = limit;
    ASSERT_EQ(::prlimit(daemon.id(), RLIMIT_NOFILE, &limits, nullptr), 0);
  }
};

}  // namespace

TEST_F(DescriptorLimit, KeepsADaemonFromStartingOrDoesNotMatter) {
  unsigned refusals = 0;
  for (unsigned limit = kFewest; limit <= kEnough; ++limit) {
    SCOPED_TRACE("limit " + std::to_string(limit));
    Process daemon = runWith(limit, {KORVEXD_PROGRAM, "--queue", queue_, "--output", output_,
                                     "--stats", folder_ / "stats"});
    ASSERT_TRUE(eventually([&] { return isServingOrOver(daemon); }));
    if (!daemon.wait(std::chrono::milliseconds(0))) {
      end(daemon);
    } else if (daemon.wait() != kNotLoaded) {
      EXPECT_EQ(daemon.wait(), 1);
      EXPECT_THAT(daemon.errors(), HasSubstr(kTooMany));
      ++refusals;
    }
    EXPECT_FALSE(korvex::test::queueExists(queue_) ||
                 korvex::test::queueExists(queue_ + "Response"));
    EXPECT_THAT(unfinishedQueuesOf(daemon), IsEmpty());
  }
  EXPECT_GE(refusals, 3u);
  EXPECT_LT(refusals, kEnough - kFewest) << "the daemon never started";
}

TEST_F(DescriptorLimit, FailsTheStreamsThatItMeetsAndNoOther) {
  const auto daemon = start({"--stats", folder_ / "stats"});
  setLimit(*daemon, 3);
  const auto to = writer();
  to->open();
  const auto reply = awaitReply(*to);
  EXPECT_EQ(reply.status, 5u);
  EXPECT_STREQ(reply.message, "opening stream folder: error 24 (Too many open files)");
  EXPECT_THAT(streams(true), IsEmpty());
  setLimit(*daemon, kEnough);
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  end(*daemon);
}

TEST_F(DescriptorLimit, FailsTheStreamsWhoseEnginesItMeets) {
  const auto daemon = startExec(recorderCommand());
  const std::size_t before = korvex::test::descriptorsOf(daemon->id());
  std::size_t refusals = 0;
  for (unsigned limit = kFewest; limit <= kEnough; ++limit) {
    SCOPED_TRACE("limit " + std::to_string(limit));
    setLimit(*daemon, limit);
    const Reply reply = replyTo("abc");
    if (std::string(reply.message) == kAbcReceipt) continue;
    EXPECT_EQ(reply.status, 5u);
    EXPECT_STREQ(reply.message, "starting the engine's keeper: error 24 (Too many open files)");
    ASSERT_TRUE(eventually([&] { return korvex::test::descriptorsOf(daemon->id()) == before; }));
    ++refusals;
  }
  EXPECT_GE(refusals, 12u) << "three pipes, a pair of sockets, and four moved aside";
  EXPECT_EQ(stored().size(), kEnough + 1 - kFewest - refusals);
  EXPECT_EQ(replyTo("abc").status, 0u);
  EXPECT_TRUE(awaitNoProcess());
  EXPECT_TRUE(eventually([&] { return korvex::test::childrenOf(daemon->id()).empty(); }));
  end(*daemon);
}

TEST_F(DescriptorLimit, KeepsTheToolFromSendingOrDoesNotMatter) {
  std::ofstream(folder_ / "file") << "abc";
  EXPECT_THAT(expectToSendOrToSayWhy({folder_ / "file"}), Not(IsEmpty()));
}

TEST_F(DescriptorLimit, HindersACommandOrDoesNotMatter) {
  EXPECT_THAT(expectToSendOrToSayWhy({"--from-command", "echo", "abc"}),
              Contains("korvex: the command 'echo' cannot be started: Too many open files\n"));
}

TEST_F(DescriptorLimit, HindersACommandOnATerminalOrNot) {
  const korvex::test::Terminal terminal(80);
  EXPECT_THAT(expectToSendOrToSayWhy({"--from-command", "echo", "abc"}, terminal.name()),
              Not(IsEmpty()));
}
