#include <gmock/gmock.h>
#include <sys/stat.h>

#include "integration/DaemonFixture.h"
#include "queue/MessageQueue.h"

using korvex::test::queueExists;
using testing::HasSubstr;

namespace {

/// A daemon's start, its end, and what it does about queues that exist.
class DaemonLife : public DaemonFixture {
 protected:
  static int run(const std::vector<std::string>& arguments, std::string* errors = nullptr) {
    std::vector<std::string> command = {KORVEXD_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    Process daemon(command);
    const int code = daemon.wait().value_or(-1);
    if (errors != nullptr) *errors = daemon.errors();
    return code;
  }
};

}  // namespace

TEST_F(DaemonLife, MakesBothQueuesAndRemovesThemOnSigterm) {
  const auto daemon = start();
  EXPECT_TRUE(queueExists(queue_) && queueExists(queue_ + "Response"));
  end(*daemon);
  EXPECT_FALSE(queueExists(queue_) || queueExists(queue_ + "Response"));
}

TEST_F(DaemonLife, EndsOnSigintToo) {
  const auto daemon = start();
  daemon->signal(SIGINT);
  EXPECT_EQ(daemon->wait(), 0);
  EXPECT_FALSE(queueExists(queue_));
}

TEST_F(DaemonLife, TakesMoreSignalsWhileItEnds) {
  const auto daemon = start();
  for (int i = 0; i < 50; ++i) daemon->signal(i % 2 == 0 ? SIGTERM : SIGINT);
  EXPECT_EQ(daemon->wait(), 0);
  EXPECT_FALSE(queueExists(queue_));
}

TEST_F(DaemonLife, RefusesQueuesThatExist) {
  const auto first = start();
  const auto second = startOnly({});
  EXPECT_EQ(second->wait(), 1);
  EXPECT_THAT(second->errors(), HasSubstr("queue " + queue_ + " exists already"));
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  end(*first);
}

TEST_F(DaemonLife, RefusesToReplaceAServedQueue) {
  const auto first = start();
  const auto second = startOnly({"--replace"});
  EXPECT_EQ(second->wait(), 1);
  EXPECT_THAT(second->errors(), HasSubstr("queue " + queue_ + " is served by another daemon"));
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  end(*first);
}

TEST_F(DaemonLife, ReplacesTheQueuesOfAKilledDaemon) {
  start()->killNow();
  ASSERT_TRUE(queueExists(queue_));
  EXPECT_EQ(startOnly({})->wait(), 1);
  const auto next = start({"--replace"});
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  end(*next);
}

TEST_F(DaemonLife, RemovesTheFirstQueueWhenASecondFails) {
  const auto other = start();
  const std::string mine = korvex::test::uniqueQueueName();
  EXPECT_EQ(run({"--queue", mine, "--queue", queue_, "--discard"}), 1);
  EXPECT_FALSE(queueExists(mine) || queueExists(mine + "Response"));
  end(*other);
}

TEST_F(DaemonLife, RemovesItsQueuesWhenTheStatisticsCannotBeWritten) {
  std::string errors;
  EXPECT_EQ(run({"--queue", queue_, "--discard", "--stats", "/nonexistent/s"}, &errors), 1);
  EXPECT_THAT(errors, HasSubstr("writing statistics to /nonexistent/s: error 2"));
  EXPECT_FALSE(queueExists(queue_) || queueExists(queue_ + "Response"));
}

TEST_F(DaemonLife, TellsWrongUsageFromFailure) {
  EXPECT_EQ(run({}), 2);
  EXPECT_EQ(run({"--queue", queue_}), 2);
  EXPECT_EQ(run({"--queue", queue_, "--discard", "--output", output_}), 2);
  EXPECT_EQ(run({"--queue", queue_, "--output", "/nonexistent"}), 1);
  EXPECT_EQ(run({"--queue", queue_, "--discard", "--capture", "/nonexistent"}), 1);
  EXPECT_EQ(run({"--help"}), 0);
}

TEST_F(DaemonLife, KeepsHostileQueueNamesInsideItsFolders) {
  const std::string capture = folder_.makeFolder("cap");
  const std::string base = korvex::test::uniqueQueueName();
  for (const std::string& name : {"..%2f" + base, ".hidden " + base, base + "\n\xff\"*"}) {
    const korvex::test::QueueRemover remover(name);
    Process daemon({KORVEXD_PROGRAM, "--queue", name, "--output", output_, "--capture", capture});
    ASSERT_TRUE(awaitLog(daemon, "serving"));
    EXPECT_THAT(stream(name, "abc"), HasSubstr("stored bytes=3"));
    end(daemon);
  }
  EXPECT_EQ(korvex::test::namesIn(folder_.path()), (std::vector<std::string>{"cap", "out"}));
  EXPECT_EQ(streams(false).size(), 3u);
  for (const char* name : {"a/b", "../a", "..", ".", "", "/", "/tmp/a"}) {
    EXPECT_EQ(run({"--queue", name, "--discard"}), 2) << name;
  }
}

TEST_F(DaemonLife, EndsOnSighupToo) {
  const auto daemon = start();
  daemon->signal(SIGHUP);
  EXPECT_EQ(daemon->wait(), 0);
  EXPECT_FALSE(korvex::test::queueExists(queue_));
}

// As nohup starts it, or a script in the background.
TEST_F(DaemonLife, LeavesSignalsIgnoredThatItsStarterIgnores) {
  Process daemon({"/bin/sh", "-c", "trap '' INT QUIT HUP; exec \"$0\" \"$@\"", KORVEXD_PROGRAM,
                  "--queue", queue_, "--output", output_});
  ASSERT_TRUE(awaitServing(daemon));
  for (const int number : {SIGINT, SIGQUIT, SIGHUP}) daemon.signal(number);
  EXPECT_EQ(daemon.wait(std::chrono::milliseconds(300)), std::nullopt);
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  end(daemon);
}

// Its messages would otherwise be written into the first file that it opens: a queue.
TEST_F(DaemonLife, ServesWithoutStandardDescriptors) {
  const Process daemon({"/bin/sh", "-c", "exec \"$0\" \"$@\" <&- >&- 2>&-", KORVEXD_PROGRAM,
                        "--queue", queue_, "--output", output_});
  ASSERT_TRUE(korvex::test::eventually([&] { return korvex::test::queueExists(queue_); }));
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
}

TEST_F(DaemonLife, OffersItsQueueAgainWhenItsNameVanishes) {
  const auto daemon = start();
  ASSERT_TRUE(korvex::MessageQueue::remove(queue_));
  ASSERT_TRUE(awaitLog(*daemon, queue_ + ": served again"));
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  end(*daemon);
}

TEST_F(DaemonLife, WritesStatisticsToADeviceWithoutReplacingIt) {
  Process daemon({KORVEXD_PROGRAM, "--queue", queue_, "--discard", "--stats", "/dev/full"});
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_THAT(daemon.errors(), HasSubstr("/dev/full: found something else, expected a file"));
  struct stat found = {};
  ASSERT_EQ(::stat("/dev/full", &found), 0);
  EXPECT_TRUE(S_ISCHR(found.st_mode));
}
