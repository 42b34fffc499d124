// A container may have no thread left to give.

#include <fstream>
#include <gmock/gmock.h>

#include "integration/DaemonFixture.h"
#include "integration/ToolRun.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

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
    EXPECT_THAT(unfinishedQueuesOf(daemon), testing::IsEmpty());
  }

  std::string other_ = korvex::test::uniqueQueueName();
  korvex::test::QueueRemover otherRemover_{other_};
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
  ASSERT_TRUE(korvex::test::eventually([this] { return streams(false).size() == 1; }));
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
