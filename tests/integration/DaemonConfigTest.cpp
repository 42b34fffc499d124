// A daemon with a configuration file: what it serves, and what becomes of it while it runs.

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <regex>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "integration/DaemonFixture.h"
#include "support/Child.h"
#include "support/Receipts.h"

using korvex::test::kAbcReceipt;
using korvex::test::namesIn;
using korvex::test::queueExists;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

/// More than a queue of the usual limits takes, and less than one with messages of 4 MiB.
constexpr rlim_t kRoomForTheOldQueue = rlim_t{8} << 20;

class DaemonConfig : public DaemonFixture {
 protected:
  /// Writes the file: a table for the first queue, with these lines, then the rest.
  void configure(const std::string& lines, const std::string& rest = "") const {
    std::ofstream(config_) << "[queue." << queue_ << "]\n" << lines << "\n" << rest;
  }

  std::string toOutput() const { return "output = '" + output_ + "'\n"; }
  std::string tableOfOther(const std::string& lines) const {
    return "[queue." + other_ + "]\n" + lines + "\n";
  }

  std::unique_ptr<Process> startConfigured(std::vector<std::string> more = {}) const {
    more.insert(more.begin(), {KORVEXD_PROGRAM, "--config", config_});
    auto daemon = std::make_unique<Process>(more);
    EXPECT_TRUE(awaitServing(*daemon)) << daemon->errors();
    return daemon;
  }

  /// Has it read the file again, and waits until it has.
  static void reload(Process& daemon, const std::string& line = "configuration reloaded") {
    daemon.signal(SIGHUP);
    EXPECT_TRUE(awaitLog(daemon, line)) << daemon.errors();
  }

  std::string answerOf(const std::vector<std::string>& options, int code) const {
    std::vector<std::string> command = {KORVEXD_PROGRAM};
    command.insert(command.end(), options.begin(), options.end());
    Process program(command);
    EXPECT_EQ(program.wait(), code) << program.errors();
    return program.output() + program.errors();
  }

  /// An open stream with data, that the daemon has seen.
  std::unique_ptr<korvex::ShmWriter> openStream() const {
    auto to = writer();
    to->open();
    write(*to, "abc");
    to->flush_shm_buffer(kTimeout);
    EXPECT_TRUE(korvex::test::eventually([this] { return streams(true).size() == 1; }));
    return to;
  }

  static ino_t objectOf(const std::string& queue) {
    struct stat found = {};
    return ::stat(("/dev/shm/" + queue).c_str(), &found) == 0 ? found.st_ino : 0;
  }

  bool awaitOtherObject(ino_t before) const {
    return korvex::test::eventually(
        [&] { return objectOf(queue_) != 0 && objectOf(queue_) != before; });
  }

  std::string tableWithMetrics() const { return "[daemon]\nmetrics = '" + metrics_ + "'\n"; }

  bool awaitSample(const std::string& sample) const {
    return korvex::test::eventually([&] {
      return ::access(metrics_.c_str(), R_OK) == 0 &&
             korvex::test::contentsOf(metrics_).find(sample) != std::string::npos;
    });
  }

  const std::string config_ = folder_ / "korvexd.toml";
  const std::string metrics_ = folder_ / "metrics/shop.prom";
  const std::string other_ = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover otherRemover_{other_};
};

}  // namespace

TEST_F(DaemonConfig, GivesEachQueueItsOwnSink) {
  configure(toOutput(), tableOfOther("exec = ['sh', '-c', 'cat > " + (folder_ / "taken") + "']"));
  const auto daemon = startConfigured();
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  EXPECT_EQ(stream(other_, "abc"), kAbcReceipt);
  end(*daemon);
  EXPECT_EQ(dataOf(streams(false).at(0)), "abc");
  EXPECT_EQ(korvex::test::contentsOf(folder_ / "taken"), "abc");
}

TEST_F(DaemonConfig, ChangesTheDigestOfLaterStreams) {
  configure(toOutput() + "digest = 'xxh128'");
  const auto daemon = startConfigured();
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  EXPECT_FALSE(manifestOf(streams(false).at(0)).contains("sha256"));
  configure(toOutput());
  reload(*daemon);
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  EXPECT_TRUE(manifestOf(streams(false).at(1)).contains("sha256"));
  end(*daemon);
}

TEST_F(DaemonConfig, ReportsEveryMistakeAndServesNothing) {
  configure("outptu = 'x'\nmode = 660", "[defaults]\nmax-messages = 0\n");
  const auto isComplete =
      AllOf(HasSubstr(config_ + ":1:8: queue " + queue_ + ": found no output"),
            HasSubstr(config_ + ":2:1: unknown key 'outptu', expected one of output, "),
            HasSubstr(config_ + ":3:8: mode: found 660, expected an octal number in quotes"),
            HasSubstr(config_ + ":5:16: max-messages: found 0, expected a whole number from 1 to"));
  EXPECT_THAT(answerOf({"--config", config_, "--check-config"}, 2), isComplete);
  EXPECT_THAT(answerOf({"--config", config_}, 2), isComplete);
  EXPECT_FALSE(queueExists(queue_));
}

TEST_F(DaemonConfig, ReportsEveryFolderAndProgramThatIsMissing) {
  configure("capture = '/nonexistent/c'\nmax-messages = 0",
            tableOfOther("exec = ['korvex-no-program', 'x']") +
                "[defaults]\noutput = '/nonexistent/o'\n");
  const auto isComplete = AllOf(
      HasSubstr(config_ + ":2:11: capture: found \"/nonexistent/c\", expected a folder: error 2"),
      HasSubstr(config_ + ":3:16: max-messages: found 0"),
      HasSubstr(config_ + ":5:8: exec: found [\"korvex-no-program\", \"x\"], expected a program to "
                          "run: error 2"),
      HasSubstr(config_ + ":7:10: output: found \"/nonexistent/o\", expected a folder to write to: "
                          "error 2"));
  EXPECT_THAT(answerOf({"--config", config_, "--check-config"}, 2), isComplete);
  EXPECT_THAT(answerOf({"--config", config_}, 2), isComplete);
}

// A service manager does not try again after code 2, and a mount may merely be late.
TEST_F(DaemonConfig, EndsOtherwiseWhenOnlyTheSystemLacksSomething) {
  configure("output = '/nonexistent'");
  EXPECT_EQ(answerOf({"--config", config_, "--check-config"}, 2),
            answerOf({"--config", config_}, 1));
  answerOf({"--config", config_, "--print-config"}, 0);
}

TEST_F(DaemonConfig, ChecksOnlyTheFoldersThatAreUsed) {
  configure("output = '/nonexistent/a'", "[defaults]\noutput = '/nonexistent/b'\n");
  EXPECT_EQ(answerOf({"--config", config_, "--discard", "--check-config"}, 0), "");
  EXPECT_THAT(answerOf({"--config", config_, "--check-config"}, 2),
              testing::Not(HasSubstr("/nonexistent/b")));
}

TEST_F(DaemonConfig, TakesChangesWhileAnotherQueueLacksItsFolder) {
  configure(toOutput());
  const auto daemon = startConfigured();
  std::filesystem::remove_all(output_);
  configure(toOutput(), tableOfOther("discard = true"));
  reload(*daemon);
  EXPECT_TRUE(awaitLog(*daemon, "serving " + other_ + ","));
  end(*daemon);
}

TEST_F(DaemonConfig, ChecksASoundFileInSilence) {
  configure(toOutput());
  EXPECT_EQ(answerOf({"--config", config_, "--check-config"}, 0), "");
  EXPECT_THAT(answerOf({"--config", config_ + "x", "--check-config"}, 1),
              HasSubstr("reading configuration " + config_ + "x: error 2"));
}

TEST_F(DaemonConfig, FindsNoMistakeInTheExample) {
  std::string example = korvex::test::contentsOf(KORVEX_PACKAGING "/korvexd.toml");
  const std::pair<std::string, std::string> installed[] = {
      {"group = \"korvex\"", "group = \"nogroup\""},
      {"/var/lib/korvex/streams", output_},
      {"/var/lib/korvex/captured", output_},
      {"\"restic\"", "\"sh\""}};
  for (const auto& [there, here] : installed) {
    ASSERT_NE(example.find(there), std::string::npos);
    example.replace(example.find(there), there.size(), here);
  }
  std::ofstream(config_) << example;
  EXPECT_EQ(answerOf({"--config", config_, "--check-config"}, 0), "");
}

TEST_F(DaemonConfig, PrintsWhatCanBeFedBack) {
  configure(toOutput() + "mode = '0660'", "[defaults]\nmax-message-size = '64K'\n");
  const std::string printed =
      answerOf({"--config", config_, "--max-messages", "3", "--print-config"}, 0);
  EXPECT_THAT(printed, AllOf(HasSubstr("\nmode = \"0660\"  # " + config_ + ":3\n"),
                             HasSubstr("\nmax-message-size = \"64K\"  # " + config_ + ":5\n"),
                             HasSubstr("\nmax-messages = 3  # command line\n"),
                             HasSubstr("\nexec-timeout = 3600  # default\n")));
  std::ofstream(config_) << printed;
  const std::string again = answerOf({"--config", config_, "--print-config"}, 0);
  const std::regex comment("  # .*");
  EXPECT_EQ(std::regex_replace(again, comment, ""), std::regex_replace(printed, comment, ""));
}

TEST_F(DaemonConfig, ServesNewQueuesAndLeavesOthersAlone) {
  configure(toOutput());
  const auto daemon = startConfigured();
  const auto before = objectOf(queue_);
  const auto to = openStream();
  configure(toOutput(), tableOfOther("discard = true"));
  reload(*daemon, "serving " + other_);
  EXPECT_EQ(stream(other_, "abc"), kAbcReceipt);
  to->close();
  EXPECT_STREQ(awaitReply(*to).message, kAbcReceipt);
  EXPECT_EQ(objectOf(queue_), before);
  end(*daemon);
}

TEST_F(DaemonConfig, LetsARemovedQueueFinishItsStream) {
  configure(toOutput(), tableOfOther("discard = true"));
  const auto daemon = startConfigured();
  const auto to = openStream();
  std::ofstream(config_) << tableOfOther("discard = true");
  reload(*daemon);
  EXPECT_TRUE(queueExists(queue_));
  to->close();
  EXPECT_TRUE(awaitLog(*daemon, queue_ + ": no longer served")) << daemon->errors();
  EXPECT_THAT(streams(false), SizeIs(1));
  EXPECT_TRUE(korvex::test::eventually([this] { return !queueExists(queue_); }));
  EXPECT_EQ(stream(other_, "abc"), kAbcReceipt);
  end(*daemon);
}

TEST_F(DaemonConfig, ServesAQueueAgainThatWasRemovedMeanwhile) {
  configure(toOutput(), tableOfOther("discard = true"));
  const auto daemon = startConfigured();
  const auto to = openStream();
  std::ofstream(config_) << tableOfOther("discard = true");
  reload(*daemon);
  configure(toOutput(), tableOfOther("discard = true"));
  reload(*daemon);
  to->close();
  EXPECT_TRUE(awaitLog(*daemon, "serving " + queue_ + ",", 2)) << daemon->errors();
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  end(*daemon);
}

TEST_F(DaemonConfig, NamesAQueueOnceInItsMetrics) {
  folder_.makeFolder("metrics");
  const std::string served = "korvex_queue_served{queue=\"" + queue_ + "\"} ";
  configure(toOutput(), tableOfOther("discard = true") + tableWithMetrics());
  const auto daemon = startConfigured();
  const auto to = openStream();
  std::ofstream(config_) << tableOfOther("discard = true") + tableWithMetrics();
  reload(*daemon);
  configure(toOutput(), tableOfOther("discard = true\nmax-messages = 4") + tableWithMetrics());
  daemon->signal(SIGHUP);
  ASSERT_TRUE(awaitSample("korvex_queue_capacity_messages{queue=\"" + other_ + "\"} 4\n"));
  const std::string text = korvex::test::contentsOf(metrics_);
  EXPECT_NE(text.find(served), std::string::npos);
  EXPECT_EQ(text.find(served), text.rfind(served)) << text;
  end(*daemon);
}

TEST_F(DaemonConfig, ChangesLimitsWithTheNextStream) {
  configure(toOutput());
  const auto daemon = startConfigured();
  const auto before = objectOf(queue_);
  const auto to = openStream();
  configure(toOutput() + "max-message-size = 4096\nmode = '0666'");
  reload(*daemon);
  write(*to, "def");
  to->close();
  EXPECT_THAT(awaitReply(*to).message, StartsWith("stored bytes=6 "));
  EXPECT_TRUE(awaitOtherObject(before));
  EXPECT_TRUE(awaitLog(*daemon, queue_ + ": served with the changed settings"));
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  end(*daemon);
  EXPECT_THAT(streams(true), IsEmpty());
}

TEST_F(DaemonConfig, ChangesASinkWithoutNewQueues) {
  configure(toOutput());
  const auto daemon = startConfigured();
  const auto before = objectOf(queue_);
  configure("discard = true");
  reload(*daemon);
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  EXPECT_THAT(namesIn(output_), IsEmpty());
  EXPECT_EQ(objectOf(queue_), before);
  end(*daemon);
}

TEST_F(DaemonConfig, SwitchesTheCaptureOnAndOff) {
  const std::string capture = folder_.makeFolder("capture");
  configure("discard = true");
  const auto daemon = startConfigured();
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  configure("discard = true\ncapture = '" + capture + "'");
  reload(*daemon);
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  const auto captured = namesIn(capture);
  EXPECT_THAT(captured, testing::Not(IsEmpty()));
  configure("discard = true");
  daemon->signal(SIGHUP);
  EXPECT_TRUE(awaitLog(*daemon, "configuration reloaded", 2));
  const auto atTheEnd = namesIn(capture);
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  end(*daemon);
  EXPECT_EQ(namesIn(capture), atTheEnd);
}

TEST_F(DaemonConfig, ReportsAFailureOfEachCapture) {
  const std::string first = folder_.makeFolder("first");
  const std::string second = folder_.makeFolder("second");
  configure("discard = true\ncapture = '" + first + "'");
  const auto daemon = startConfigured();
  std::filesystem::remove_all(first);
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  EXPECT_TRUE(awaitLog(*daemon, "batch 1: "));
  configure("discard = true\ncapture = '" + second + "'");
  reload(*daemon);
  std::filesystem::remove_all(second);
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  EXPECT_TRUE(awaitLog(*daemon, second));
  end(*daemon);
}

TEST_F(DaemonConfig, ChangesNothingForAFileWithMistakes) {
  configure(toOutput());
  const auto daemon = startConfigured();
  configure("discard = true\nmode = 1", tableOfOther("discard = true"));
  reload(*daemon, "the configuration was not changed: it has mistakes");
  EXPECT_THAT(daemon->errors(), HasSubstr(config_ + ":3:8: mode: found 1, expected"));
  configure("output = '/nonexistent'", tableOfOther("discard = true"));
  reload(*daemon, config_ + ":2:10: output: found \"/nonexistent\", expected a folder to write to");
  EXPECT_TRUE(awaitLog(*daemon, "the configuration was not changed: it has mistakes", 2));
  EXPECT_FALSE(queueExists(other_));
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  end(*daemon);
  EXPECT_THAT(streams(false), SizeIs(1));
}

TEST_F(DaemonConfig, WaitsForAQueueThatCannotBeMadeYet) {
  configure(toOutput());
  const auto daemon = startConfigured();
  const std::string obstacle = "/dev/shm/" + other_;
  std::ofstream(obstacle) << "in the way";
  configure(toOutput(), tableOfOther("discard = true"));
  reload(*daemon, other_ + ": not served yet: queue " + other_ + " exists already");
  ASSERT_EQ(::unlink(obstacle.c_str()), 0);
  EXPECT_TRUE(awaitLog(*daemon, "serving " + other_ + ","));
  end(*daemon);
}

TEST_F(DaemonConfig, SaysWhyAQueueThatReturnsCannotBeMade) {
  configure(toOutput(), tableOfOther("discard = true"));
  const auto daemon = startConfigured();
  const auto to = openStream();
  std::ofstream(config_) << tableOfOther("discard = true");
  reload(*daemon);
  configure(toOutput() + "max-messages = 65536\nmax-message-size = '1G'",
            tableOfOther("discard = true"));
  daemon->signal(SIGHUP);
  ASSERT_TRUE(awaitLog(*daemon, "configuration reloaded", 2));
  to->close();
  EXPECT_TRUE(awaitLog(*daemon, queue_ + ": not served yet: creating queue " + queue_));
  end(*daemon);
}

TEST_F(DaemonConfig, KeepsTheOldLimitsWhenMemoryIsShort) {
  configure(toOutput());
  const auto daemon = startConfigured();
  configure(toOutput() + "max-messages = 65536\nmax-message-size = '16M'");
  reload(*daemon, queue_ + ": cannot be served with the changed settings, keeping the old ones");
  EXPECT_TRUE(awaitLog(*daemon, queue_ + ": served again"));
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  end(*daemon);
}

TEST_F(DaemonConfig, TriesRefusedLimitsAgain) {
  configure(toOutput());
  const auto daemon = startConfigured();
  rlimit before = {};
  rlimit limit = {kRoomForTheOldQueue, RLIM_INFINITY};
  ASSERT_EQ(::prlimit(daemon->id(), RLIMIT_FSIZE, &limit, &before), 0);
  configure(toOutput() + "max-message-size = '4M'");
  reload(*daemon, queue_ + ": cannot be served with the changed settings, keeping the old ones");
  EXPECT_TRUE(awaitLog(*daemon, queue_ + ": served again"));
  ASSERT_EQ(::prlimit(daemon->id(), RLIMIT_FSIZE, &before, nullptr), 0);
  reload(*daemon, queue_ + ": served with the changed settings");
  end(*daemon);
}

TEST_F(DaemonConfig, KeepsMetricsAcrossReloadsAndAnUnwritableFile) {
  folder_.makeFolder("metrics");
  const std::string daemonTable = tableWithMetrics();
  const std::string success = "korvex_last_success_timestamp_seconds{queue=\"" + other_ + "\"} ";
  const std::string capacity = "korvex_queue_capacity_messages{queue=\"" + queue_ + "\"} ";
  configure("discard = true", tableOfOther("discard = true") + daemonTable);
  const auto daemon = startConfigured();
  EXPECT_EQ(stream(other_, "abc"), kAbcReceipt);
  ASSERT_TRUE(awaitSample(success + "1"));  // seconds since 1970
  configure("discard = true\nmax-messages = 4", daemonTable);
  reload(*daemon);
  EXPECT_TRUE(awaitLog(*daemon, other_ + ": no longer served"));
  EXPECT_TRUE(awaitSample(capacity + "4"));
  std::filesystem::rename(folder_ / "metrics", folder_ / "away");
  configure("discard = true", tableOfOther("discard = true") + daemonTable);
  reload(*daemon, "serving " + other_);
  EXPECT_TRUE(awaitLog(*daemon, "writing metrics to "));
  std::filesystem::rename(folder_ / "away", folder_ / "metrics");
  EXPECT_TRUE(awaitSample(capacity + "8"));
  EXPECT_TRUE(awaitSample(success + "1")) << "it was away, and had one before";
  end(*daemon);
  EXPECT_EQ(daemon->errors().find("the configuration was not changed"), std::string::npos);
}

TEST_F(DaemonConfig, ShowsInItsMetricsWhatWasNotTaken) {
  folder_.makeFolder("metrics");
  const std::string successful = "korvex_config_last_reload_successful{daemon=\"shop\"} ";
  const std::string served = "korvex_queue_served{queue=\"" + other_ + "\"} ";
  configure("discard = true", tableWithMetrics());
  const auto daemon = startConfigured();
  EXPECT_TRUE(awaitSample(successful + "1\n"));
  configure("discard = 1", tableWithMetrics());
  reload(*daemon, "the configuration was not changed");
  EXPECT_TRUE(awaitSample(successful + "0\n"));
  std::ofstream("/dev/shm/" + other_) << "in the way";
  configure("discard = true", tableOfOther("discard = true") + tableWithMetrics());
  reload(*daemon);
  EXPECT_TRUE(awaitSample(successful + "1\n"));
  EXPECT_TRUE(awaitSample(served + "0\n"));
  ASSERT_EQ(::unlink(("/dev/shm/" + other_).c_str()), 0);
  EXPECT_TRUE(awaitSample(served + "1\n"));
  end(*daemon);
}

TEST_F(DaemonConfig, WritesStatisticsOfTheQueuesThatItServesNow) {
  configure("discard = true");
  const auto daemon = startConfigured();
  const std::string stats = folder_ / "stats.json";
  const std::string daemonTable = "[daemon]\nstats = '" + stats + "'\n";
  configure("discard = true", tableOfOther("discard = true") + daemonTable);
  reload(*daemon);
  EXPECT_EQ(stream(other_, "abc"), kAbcReceipt);
  ASSERT_TRUE(korvex::test::eventually([&] { return ::access(stats.c_str(), R_OK) == 0; }));
  const auto holds = [&](const std::string& queue) {
    return korvex::test::contentsOf(stats).find("\"" + queue + "\"") != std::string::npos;
  };
  EXPECT_TRUE(korvex::test::eventually([&] { return holds(queue_) && holds(other_); }));
  configure("discard = true", daemonTable);
  daemon->signal(SIGHUP);
  EXPECT_TRUE(korvex::test::eventually([&] { return holds(queue_) && !holds(other_); }));
  end(*daemon);
}

TEST_F(DaemonConfig, EndsBySighupWithoutAFile) {
  const auto daemon = start();
  daemon->signal(SIGHUP);
  EXPECT_EQ(daemon->wait(), 0);
}

namespace {

/// Daemons that are ended while a stream is open.
class DaemonDrain : public DaemonConfig {
 protected:
  std::unique_ptr<Process> startDraining(const std::string& seconds) {
    return start({"--drain-timeout", seconds});
  }

  /// What the producer of a stream hears.
  std::string outcomeOn(const std::string& queue) const {
    try {
      return stream(queue, "abc");
    } catch (const Ov_ErrnoException& error) {
      return error.getMessage();
    }
  }
};

}  // namespace

TEST_F(DaemonDrain, LetsTheOpenStreamFinishAndRefusesOthers) {
  const auto daemon = start({"--queue", other_, "--drain-timeout", "60"});
  const auto to = openStream();
  daemon->signal(SIGTERM);
  ASSERT_TRUE(awaitLog(*daemon, "shutting down; open streams have 60 seconds to finish"));
  // What comes before the queue's thread has heard of it is still taken.
  EXPECT_TRUE(korvex::test::eventually(
      [this] { return outcomeOn(other_) == "the daemon accepts no new streams on this queue"; }));
  to->close();
  EXPECT_STREQ(awaitReply(*to).message, kAbcReceipt);
  EXPECT_EQ(daemon->wait(), 0);
  EXPECT_THAT(streams(true), IsEmpty());
}

TEST_F(DaemonDrain, KeepsItsStatisticsUpToDate) {
  const std::string stats = folder_ / "stats.json";
  const auto daemon = start({"--drain-timeout", "600", "--stats", stats});
  const auto to = openStream();
  daemon->signal(SIGTERM);
  ASSERT_TRUE(awaitLog(*daemon, "shutting down; open streams have"));
  write(*to, "def");
  to->flush_shm_buffer(kTimeout);
  EXPECT_TRUE(korvex::test::eventually([&] {
    return nlohmann::json::parse(korvex::test::contentsOf(stats))["total"]["bytes"] == 6;
  }));
  end(*daemon);
}

TEST_F(DaemonDrain, EndsWithoutStreamsAtOnce) {
  const auto daemon = startDraining("600");
  end(*daemon);
}

TEST_F(DaemonDrain, MarksStreamsIncompleteWhenTheTimeIsOver) {
  const auto daemon = startDraining("1");
  const auto to = openStream();
  end(*daemon);
  EXPECT_EQ(manifestOf(streams(true).at(0))["reason"], "the daemon ended");
}

TEST_F(DaemonDrain, IsCutShortByASecondSignal) {
  const auto daemon = startDraining("600");
  const auto to = openStream();
  daemon->signal(SIGTERM);
  ASSERT_TRUE(awaitLog(*daemon, "shutting down; open streams have"));
  end(*daemon);
  EXPECT_THAT(streams(true), SizeIs(1));
}

TEST_F(DaemonDrain, IsCutShortByItsTerminalsHangUp) {
  const auto daemon = startDraining("600");
  const auto to = openStream();
  daemon->signal(SIGTERM);
  ASSERT_TRUE(awaitLog(*daemon, "shutting down; open streams have"));
  daemon->signal(SIGHUP);
  EXPECT_EQ(daemon->wait(), 0);
}

TEST_F(DaemonDrain, TakesNoOtherConfiguration) {
  configure(toOutput(), "[daemon]\ndrain-timeout = 600\n");
  const auto daemon = startConfigured();
  const auto to = openStream();
  daemon->signal(SIGTERM);
  ASSERT_TRUE(awaitLog(*daemon, "shutting down; open streams have 600 seconds to finish"));
  configure("discard = true", tableOfOther("discard = true"));
  reload(*daemon, "the configuration was not changed: the daemon is shutting down");
  to->close();
  EXPECT_STREQ(awaitReply(*to).message, kAbcReceipt);
  EXPECT_EQ(daemon->wait(), 0);
  EXPECT_FALSE(queueExists(other_));
}

TEST_F(DaemonConfig, KeepsServingWhenItsFileBecomesAPipe) {
  configure(toOutput());
  const auto daemon = startConfigured();
  ASSERT_EQ(::unlink(config_.c_str()), 0);
  ASSERT_EQ(::mkfifo(config_.c_str(), 0600), 0);
  reload(*daemon, "the configuration was not changed: reading configuration " + config_ +
                      ": found something else, expected a file");
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  end(*daemon);
}

namespace {

/// A daemon and producers that are users of their own, with the groups that they are given.
class DaemonOfAGroup : public DaemonConfig {
 protected:
  void SetUp() override {
    if (!korvex::test::isRoot()) GTEST_SKIP() << "needs root to be several users";
    if (as("60001", "60001", {"/usr/bin/test", "-x", KORVEXD_PROGRAM})->wait() != 0) {
      GTEST_SKIP() << "other users cannot reach " << KORVEXD_PROGRAM;
    }
    configure(toOutput() + "mode = '0660'\ngroup = 'backup'");
    ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
    ASSERT_EQ(::chown(output_.c_str(), 60001, 60001), 0);
  }

  static std::unique_ptr<Process> as(const std::string& user, const std::string& group,
                                     const std::vector<std::string>& command) {
    std::vector<std::string> all = {"/usr/bin/setpriv", "--reuid", user, "--regid", user,
                                    "--groups",         group};
    all.insert(all.end(), command.begin(), command.end());
    return std::make_unique<Process>(all);
  }

  std::unique_ptr<Process> send(const std::string& user, const std::string& group) const {
    return as(user, group, {KORVEX_PROGRAM, "send", "--queue", queue_, config_});
  }
};

}  // namespace

TEST_F(DaemonOfAGroup, ServesMembersAndNobodyElse) {
  const auto daemon = as("60001", "backup", {KORVEXD_PROGRAM, "--config", config_});
  ASSERT_TRUE(awaitServing(*daemon)) << daemon->errors();
  const auto member = send("60002", "backup");
  EXPECT_EQ(member->wait(), 0) << member->errors();
  const auto stranger = send("60003", "60003");
  EXPECT_EQ(stranger->wait(), 1);
  EXPECT_THAT(stranger->errors(), HasSubstr("ermission denied"));
  end(*daemon);
}

TEST_F(DaemonOfAGroup, DoesNotStartWithoutBeingAMember) {
  const auto daemon = as("60001", "60001", {KORVEXD_PROGRAM, "--config", config_});
  EXPECT_EQ(daemon->wait(), 1);
  EXPECT_THAT(daemon->errors(), HasSubstr("error 1 (Operation not permitted)"));
  EXPECT_FALSE(queueExists(queue_));
}
