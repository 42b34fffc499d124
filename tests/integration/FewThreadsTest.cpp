// A container may have no thread and no process left to give.

#include <fstream>
#include <gmock/gmock.h>

#include "integration/ExecFixture.h"
#include "integration/ToolRun.h"

using korvex::test::eventually;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

const char kNoMore[] = ": error 11 (Resource temporarily unavailable)\n";

class FewThreads : public DaemonFixture {
 protected:
  /// A daemon for two queues that gets only so many threads besides its first.
  Process runWith(int threads, const std::string& sink = "--discard") const {
    return Process({"/usr/bin/env", "LD_PRELOAD=" KORVEX_FEW_THREADS,
                    "KORVEX_TEST_THREADS=" + std::to_string(threads), KORVEXD_PROGRAM, "--queue",
                    queue_, "--queue", other_, sink});
  }

  void expectNoQueues(const Process& daemon) const {
    for (const std::string& queue : {queue_, other_}) {
      EXPECT_FALSE(korvex::test::queueExists(queue));
      EXPECT_FALSE(korvex::test::queueExists(queue + "Response"));
    }
    EXPECT_THAT(unfinishedQueuesOf(daemon), IsEmpty());
  }

  std::string other_ = korvex::test::uniqueQueueName();
  korvex::test::QueueRemover otherRemover_{other_};
};

/// While there is a file with one of these names, nothing is started by that function.
class FewProcesses : public ExecFixture {
 protected:
  static constexpr const char* kNoFork = "no-fork";
  static constexpr const char* kNoSpawn = "no-spawn";

  std::vector<std::string> limited(const std::vector<std::string>& command) const {
    std::vector<std::string> words = {"/usr/bin/env", "LD_PRELOAD=" KORVEX_FEW_THREADS,
                                      "KORVEX_TEST_NO_FORK=" + output_ + "/" + kNoFork,
                                      "KORVEX_TEST_NO_SPAWN=" + output_ + "/" + kNoSpawn};
    words.insert(words.end(), command.begin(), command.end());
    return words;
  }

  /// The stream meets the limit; the next one does not, and nothing is left of the one before.
  void expectToFailOneStream(const std::string& limit, const std::string& reason) const {
    Process daemon(limited({KORVEXD_PROGRAM, "--queue", queue_, "--exec", recorderCommand()}));
    ASSERT_TRUE(awaitServing(daemon)) << daemon.errors();
    const std::size_t descriptors = korvex::test::descriptorsOf(daemon.id());
    makeFile(limit);
    const Reply reply = replyTo("abc");
    EXPECT_EQ(reply.status, 5u);
    // Cut off after 127 characters, when the engine's path is long.
    EXPECT_THAT(reason + kNoMore, StartsWith(std::string(reply.message)));
    EXPECT_TRUE(awaitNoProcess());
    EXPECT_TRUE(eventually([&] {
      return korvex::test::childrenOf(daemon.id()).empty() &&
             korvex::test::descriptorsOf(daemon.id()) == descriptors;
    }));
    removeFile(limit);
    EXPECT_STREQ(replyTo("abc").message, "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
    EXPECT_THAT(stored(), testing::SizeIs(1));
    end(daemon);
  }

  void removeFile(const std::string& name) const {
    EXPECT_EQ(::unlink((output_ + "/" + name).c_str()), 0);
  }
};

}  // namespace

TEST_F(FewThreads, NoneForTheLogIsSaidAllTheSame) {
  Process daemon = runWith(0);
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_EQ(daemon.errors(), std::string("korvexd: starting the thread of the log") + kNoMore);
  expectNoQueues(daemon);
}

TEST_F(FewThreads, NoneForTheWatchEndsTheDaemonEarly) {
  Process daemon = runWith(1);
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_THAT(daemon.errors(), Not(HasSubstr("/dev/shm")));
  EXPECT_THAT(daemon.errors(),
              EndsWith(std::string("starting the thread that watches idle queues") + kNoMore));
  expectNoQueues(daemon);
}

TEST_F(FewThreads, NoneForAQueueEndsTheDaemonInOrder) {
  const std::string queues[] = {queue_, other_};
  for (const int threads : {2, 3}) {
    Process daemon = runWith(threads);
    EXPECT_EQ(daemon.wait(), 1);
    EXPECT_THAT(daemon.errors(), Not(HasSubstr("serving "))) << "nobody would serve them";
    EXPECT_THAT(daemon.errors(),
                EndsWith("starting the thread of queue " + queues[threads - 2] + kNoMore));
    expectNoQueues(daemon);
  }
}

TEST_F(FewThreads, OneMoreForEachQueueIsEnough) {
  Process daemon = runWith(4);
  ASSERT_TRUE(awaitServing(daemon));
  EXPECT_EQ(stream(other_, "abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  end(daemon);
}

TEST_F(FewThreads, NoneForADigestOnlyTakesMoreTime) {
  Process daemon = runWith(4, "--output=" + output_);
  ASSERT_TRUE(awaitServing(daemon));
  const auto to = writer();
  to->open();
  for (int tenth = 0; tenth < 10; ++tenth) write(*to, std::string(100000, 'a'));
  to->close();
  ASSERT_TRUE(eventually([this] { return streams(false).size() == 1; }));
  // From the standard, FIPS 180: a million times "a".
  EXPECT_EQ(manifestOf(streams(false).at(0))["sha256"],
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  end(daemon);
}

TEST_F(FewThreads, NoneForTheToolOnlyTakesMoreTime) {
  const auto runTool = [](std::vector<std::string> words) {
    words.insert(words.begin(), {"/usr/bin/env", "LD_PRELOAD=" KORVEX_FEW_THREADS,
                                 "KORVEX_TEST_THREADS=0", KORVEX_PROGRAM});
    return korvex::test::runProgram(words);
  };
  const auto daemon = start();
  std::ofstream(folder_ / "file") << "abc";
  const auto sent = runTool({"send", "--queue", queue_, folder_ / "file"});
  ASSERT_EQ(sent.code, 0) << sent.errors;
  EXPECT_EQ(runTool({"verify", output_}).code, 0);
  std::ofstream(output_ + "/" + streams(false).at(0) + "/data") << "abd";
  EXPECT_EQ(runTool({"verify", output_}).code, 1);
  end(*daemon);
}

TEST_F(FewProcesses, NoneForAKeeperFailsTheStream) {
  expectToFailOneStream(kNoSpawn, "starting the engine's keeper");
}

TEST_F(FewProcesses, NoneForAnEngineFailsTheStream) {
  expectToFailOneStream(kNoFork, "starting the engine '" + recorder() + "'");
}

TEST_F(FewProcesses, NoneForACommandStoresNothing) {
  const auto daemon = start();
  makeFile(kNoSpawn);
  const auto run = korvex::test::runProgram(
      limited({KORVEX_PROGRAM, "send", "--queue", queue_, "--from-command", "echo", "abc"}));
  EXPECT_EQ(run.code, 1);
  EXPECT_EQ(run.errors,
            "korvex: the command 'echo' cannot be started: Resource temporarily unavailable\n");
  removeFile(kNoSpawn);
  EXPECT_THAT(korvex::test::namesIn(output_), IsEmpty());
  end(*daemon);
}
