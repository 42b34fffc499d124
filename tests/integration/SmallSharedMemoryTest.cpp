#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/Namespaces.h"
#include "support/Process.h"
#include "support/Queues.h"

using korvex::test::Process;
using korvex::test::withOwnMounts;
using testing::HasSubstr;

namespace {

/// A daemon of two queues, of 2768 and 2163088 bytes, that has a /dev/shm of its own.
class SmallSharedMemory : public testing::Test {
 protected:
  void SetUp() override {
    Process trial(withOwnMounts({"/bin/sh", "-c", "mount -t tmpfs -o size=64k none /dev/shm"}));
    if (trial.wait() != 0) GTEST_SKIP() << "no mount namespace of one's own: " << trial.errors();
  }

  /// Runs a script there with the daemon's command line as its arguments.
  static Process inside(const std::string& options, const std::string& script) {
    const std::string mount = "mount -t tmpfs -o " + options + " none /dev/shm || exit 99; ";
    return Process(withOwnMounts({"/bin/sh", "-c", mount + script, KORVEXD_PROGRAM, "--queue",
                                  "korvex-small", "--discard"}));
  }
};

// The daemon's exit code, and whatever it left.
const char kRun[] = "\"$0\" \"$@\"; code=$?; ls -A /dev/shm; exit $code";

}  // namespace

TEST_F(SmallSharedMemory, EndsTheDaemonWithWhatItWouldNeed) {
  Process daemon = inside("size=1m", kRun);
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_THAT(
      daemon.errors(),
      HasSubstr("creating queue korvex-small, which needs 2163088 bytes of shared memory in "
                "/dev/shm: error 28 (No space left on device)"));
  EXPECT_EQ(daemon.output(), "") << "nothing may stay";
}

TEST_F(SmallSharedMemory, NamesTheResponseQueueWhenNotEvenThatFits) {
  Process daemon =
      inside("size=64k", "head -c 64k /dev/zero > /dev/shm/full; " + std::string(kRun));
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_THAT(daemon.errors(),
              HasSubstr("creating queue korvex-smallResponse, which needs 2768 bytes of shared "
                        "memory in /dev/shm: error 28 (No space left on device)"));
  EXPECT_EQ(daemon.output(), "full\n");
}

TEST_F(SmallSharedMemory, WithoutAFileLeftIsAnErrorToo) {
  Process daemon = inside("size=8m,nr_inodes=2", kRun);
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_THAT(daemon.errors(), HasSubstr("error 28 (No space left on device)"));
  EXPECT_EQ(daemon.output(), "");
}

// The first stream that uses every page of the queue is where it would end otherwise.
TEST_F(SmallSharedMemory, IsFilledToTheLastPageByAStream) {
  const std::string script =
      "\"$0\" \"$@\" 2>/dev/null & daemon=$!; "
      "until [ -e /dev/shm/korvex-small ]; do kill -0 $daemon || exit; sleep 0.01; done; "
      "head -c 1g /dev/zero > /dev/shm/full 2>/dev/null; "
      "head -c 8m /dev/zero | " KORVEX_PROGRAM
      " send --quiet --queue korvex-small; code=$?; "
      "kill $daemon; wait $daemon && exit $code";
  Process daemon = inside("size=5m", script);
  EXPECT_EQ(daemon.wait(), 0) << daemon.errors();
}

TEST_F(SmallSharedMemory, NeedNotHoldAKilledDaemonsQueuesToo) {
  const std::string script =
      "\"$0\" \"$@\" & until [ -e /dev/shm/korvex-small ]; do kill -0 $! || exit; sleep 0.01; "
      "done; "
      "queue() { stat -c %i /dev/shm/korvex-small 2>/dev/null || echo none; }; dead=$(queue); "
      "kill -9 $!; wait $!; "
      "\"$0\" \"$@\" --replace & daemon=$!; "
      "while kill -0 $daemon && [ $(queue) = $dead -o $(queue) = none ]; do sleep 0.01; done; "
      "kill $daemon; wait $daemon";
  Process daemon = inside("size=3m", script);
  EXPECT_EQ(daemon.wait(), 0) << daemon.errors();
}

#ifdef KORVEX_NO_RESERVATION
// What was free a moment ago may be gone when the queue's index is written.
TEST_F(SmallSharedMemory, ThatIsTakenMeanwhileEndsTheDaemonAlike) {
  Process daemon = inside("size=64k",
                          "set -- \"$@\" --max-messages 65536 --max-message-size 64; "
                          "export LD_PRELOAD=" KORVEX_NO_RESERVATION "; " +
                              std::string(kRun));
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_THAT(
      daemon.errors(),
      HasSubstr("creating queue korvex-small, which needs 5767376 bytes of shared memory in "
                "/dev/shm: error 28 (No space left on device)"));
  EXPECT_EQ(daemon.output(), "");
}
#endif

// A limit is a file system that is too small as well, and sends a signal.
TEST(LimitedFileSize, EndsTheDaemonWithWhatItWouldNeed) {
  const std::string name = korvex::test::uniqueQueueName();
  Process daemon({"/bin/sh", "-c", "ulimit -f 100; exec \"$0\" \"$@\"", KORVEXD_PROGRAM, "--queue",
                  name, "--discard"});
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_THAT(daemon.errors(), HasSubstr("creating queue " + name +
                                         ", which needs 2163088 bytes of shared memory in "
                                         "/dev/shm: error 27 (File too large)"));
  EXPECT_FALSE(korvex::test::queueExists(name) || korvex::test::queueExists(name + "Response"));
}
