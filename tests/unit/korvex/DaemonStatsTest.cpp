#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "status/DaemonStats.h"
#include "support/Await.h"
#include "support/Process.h"
#include "support/TemporaryFolder.h"

namespace {

using korvex::test::eventually;
using korvex::test::Process;
using korvex::tool::readStats;
using korvex::tool::StatsByQueue;
using korvex::tool::statsPathOf;
using korvex::tool::StreamStats;

constexpr std::time_t kThen = 1577836800;  // 2020-01-01T00:00:00Z

class StatsOfADaemon : public testing::Test {
 protected:
  std::string write(const std::string& text) const {
    std::ofstream(folder_ / "stats") << text;
    return folder_ / "stats";
  }

  korvex::test::TemporaryFolder folder_;
  StatsByQueue stats_;
};

}  // namespace

TEST_F(StatsOfADaemon, AreReadForEachQueue) {
  const std::string path = write(R"({"queues":{"q":{
      "open_stream":{"since":"2020-01-01T00:00:00Z","bytes":5,"place":"p"},
      "last_complete":{"at":"2020-01-01T00:00:01Z","bytes":6},
      "last_incomplete":{"at":"2020-01-01T00:00:02Z","bytes":7,"reason":"r"},
      "streams_complete":8,"streams_incomplete":9,"bytes":10},"none":3}})");
  const timespec times[] = {{0, 0}, {kThen, 500000000}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  stats_["other"].bytes = 1;
  EXPECT_EQ(readStats(path, stats_), "");
  ASSERT_EQ(stats_.size(), 2u) << "one is kept, and one is no queue";
  const StreamStats& found = stats_["q"];
  ASSERT_TRUE(found.open && found.lastComplete && found.lastIncomplete);
  EXPECT_EQ(found.open->since, kThen);
  EXPECT_EQ(found.open->bytes, 5u);
  EXPECT_EQ(found.open->place, "p");
  EXPECT_EQ(found.lastComplete->at, kThen + 1);
  EXPECT_EQ(found.lastComplete->bytes, 6u);
  EXPECT_EQ(found.lastComplete->reason, "");
  EXPECT_EQ(found.lastIncomplete->at, kThen + 2);
  EXPECT_EQ(found.lastIncomplete->bytes, 7u);
  EXPECT_EQ(found.lastIncomplete->reason, "r");
  EXPECT_EQ(found.complete, 8u);
  EXPECT_EQ(found.incomplete, 9u);
  EXPECT_EQ(found.bytes, 10u);
  EXPECT_DOUBLE_EQ(found.writtenAt, static_cast<double>(kThen) + 0.5);
}

TEST_F(StatsOfADaemon, HaveNothingWhereAMemberIsOfAnotherKind) {
  EXPECT_EQ(readStats(write(R"({"queues":{"q":{
      "open_stream":{"since":"now","bytes":-1,"place":[]},"last_complete":[],
      "streams_complete":"8","bytes":1.5}}})"),
                      stats_),
            "");
  const StreamStats& found = stats_["q"];
  ASSERT_TRUE(found.open);
  EXPECT_EQ(found.open->since, 0);
  EXPECT_EQ(found.open->bytes, 0u);
  EXPECT_EQ(found.open->place, "");
  EXPECT_FALSE(found.lastComplete || found.lastIncomplete);
  EXPECT_EQ(found.complete + found.bytes, 0u);
}

TEST_F(StatsOfADaemon, SayWhatIsWrongWithThem) {
  const std::string defect = "not a daemon's statistics";
  for (const char* text : {"", "{", "[]", "{}", R"({"queues":[]})"}) {
    EXPECT_EQ(readStats(write(text), stats_), defect) << text;
  }
  EXPECT_EQ(readStats(folder_.path(), stats_), defect);
  EXPECT_EQ(readStats(folder_ / "missing", stats_), "No such file or directory");
  EXPECT_TRUE(stats_.empty());
}

TEST_F(StatsOfADaemon, LieWhereItsCommandLineSays) {
  struct Row {
    std::vector<std::string> words;
    std::string in;  ///< of the process's own
    std::string path;
  };
  const std::string path = write("");
  for (const Row& row :
       {Row{{"--stats", "a/b"}, "/cwd/", "a/b"}, Row{{"--stats", path}, "/root", path},
        Row{{"--statsx", "a", "--stats=/no/such"}, "", "/no/such"}}) {
    std::vector<std::string> command = {"/bin/sh", "-c", "kill -STOP $$", "sh"};
    command.insert(command.end(), row.words.begin(), row.words.end());
    const Process daemon(command);
    const std::string process = "/proc/" + std::to_string(daemon.id());
    const std::string expected = (row.in.empty() ? "" : process + row.in) + row.path;
    EXPECT_TRUE(eventually([&] { return statsPathOf(daemon.id()) == expected; })) << expected;
  }
  EXPECT_EQ(statsPathOf(::getpid()), "");
}
