// Files are what programs run out of, and queues are files too.

#include <fstream>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include "integration/DaemonFixture.h"

using korvex::test::eventually;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

const char kTooMany[] = "Too many open files";

constexpr unsigned kFewest = 4;
constexpr unsigned kEnough = 40;
constexpr int kNotLoaded = 127;  // the exit code of the system's loader

class DescriptorLimit : public DaemonFixture {
 protected:
  static Process runWith(unsigned limit, std::vector<std::string> command) {
    std::vector<std::string> words = {"/bin/sh", "-c", "ulimit -n \"$0\"; exec \"$@\"",
                                      std::to_string(limit)};
    words.insert(words.end(), command.begin(), command.end());
    return Process(words);
  }

  bool isServingOrOver(Process& daemon) const {
    return daemon.errors().find("serving " + queue_ + ",") != std::string::npos ||
           daemon.wait(std::chrono::milliseconds(0));
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
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  end(*daemon);
}

TEST_F(DescriptorLimit, KeepsTheToolFromSendingOrDoesNotMatter) {
  const auto daemon = start();
  std::ofstream(folder_ / "file") << "abc";
  unsigned refusals = 0;
  std::size_t sent = 0;
  for (unsigned limit = kFewest; limit <= kEnough; ++limit) {
    SCOPED_TRACE("limit " + std::to_string(limit));
    Process sender = runWith(limit, {KORVEX_PROGRAM, "send", "--queue", queue_, folder_ / "file"});
    if (sender.wait() == 0) ++sent;
    if (sender.wait() == 0 || sender.wait() == kNotLoaded) continue;
    EXPECT_EQ(sender.wait(), 1);
    EXPECT_THAT(sender.errors(), StartsWith("korvex: "));
    EXPECT_THAT(sender.errors(), HasSubstr(kTooMany));
    ++refusals;
  }
  EXPECT_GE(refusals, 1u);
  EXPECT_GE(sent, 1u);
  EXPECT_EQ(streams(false).size(), sent);
  end(*daemon);
}
