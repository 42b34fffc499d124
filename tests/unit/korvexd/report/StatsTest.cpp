#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "korvex/receiver/SystemError.h"
#include "korvexd/report/Attempts.h"
#include "korvexd/report/StatsFile.h"
#include "support/LoggedText.h"
#include "support/TemporaryFolder.h"

using korvex::receiver::Count;
using korvex::receiver::Counters;
using korvex::receiver::Ending;
using korvex::test::contentsOf;
using korvex::test::namesIn;
using korvex::test::TemporaryFolder;
using korvexd::StatsFile;
using korvexd::StreamLog;
using testing::ElementsAre;

namespace {

class StatsFileTest : public testing::Test {
 protected:
  nlohmann::json written() const { return nlohmann::json::parse(contentsOf(path_)); }

  TemporaryFolder folder_;
  std::string path_ = folder_ / "stats.json";
  Counters one_;
  Counters two_;
  StreamLog log_{"q", std::nullopt};
  StatsFile file_{path_, {{"one", &one_, &log_}, {"two", &two_, &log_}}};
};

}  // namespace

TEST(Stats, StartAtZeroAndCount) {
  Counters stats;
  EXPECT_EQ(stats.get(Count::Bytes), 0u);
  stats.add(Count::Bytes, 5);
  stats.add(Count::Bytes, 6);
  EXPECT_EQ(stats.get(Count::Bytes), 11u);
  EXPECT_EQ(stats.get(Count::Records), 0u);
}

TEST(Stats, EachCountHasItsOwnName) {
  const std::vector<std::string> names = {
      "streams_opened",    "streams_complete",  "streams_incomplete",
      "records",           "dropped_records",   "bytes",
      "batches",           "bad_batches",       "replies_sent",
      "replies_pending",   "replies_withdrawn", "replies_lost",
      "queue_replacements"};
  ASSERT_EQ(korvex::receiver::kCounts, names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(korvex::receiver::kCountNames[i].count, static_cast<Count>(i));
    EXPECT_EQ(korvex::receiver::kCountNames[i].name, names[i]);
  }
}

TEST_F(StatsFileTest, HoldsEachQueueAndTheTotal) {
  one_.add(Count::Bytes, 3);
  two_.add(Count::Bytes, 4);
  two_.add(Count::BadBatches);
  file_.update();
  EXPECT_EQ(written()["queues"]["one"]["bytes"], 3);
  EXPECT_EQ(written()["queues"]["two"]["bytes"], 4);
  EXPECT_EQ(written()["total"]["bytes"], 7);
  EXPECT_EQ(written()["total"]["bad_batches"], 1);
}

TEST_F(StatsFileTest, CountsMessagesThatWereNotCaptured) {
  const std::string captured = folder_.makeFolder("captured");
  StreamLog log("q", captured);
  ASSERT_EQ(::rmdir(captured.c_str()), 0);
  log.messageReceived(1, nullptr, 0);
  StatsFile(path_, {{"q", &one_, &log}, {"two", &two_, &log_}}).update();
  EXPECT_EQ(written()["queues"]["q"]["capture_failures"], 1);
  EXPECT_EQ(written()["total"]["capture_failures"], 1);
}

TEST_F(StatsFileTest, TellsTheOpenStreamAndTheLastEndings) {
  const auto queue = [this] {
    file_.update();
    return written()["queues"]["one"];
  };
  EXPECT_TRUE(queue()["open_stream"].is_null() && queue()["last_complete"].is_null());
  log_.streamOpened("there");
  one_.add(Count::Bytes, 5);
  EXPECT_EQ(queue()["open_stream"]["bytes"], 5);
  EXPECT_EQ(queue()["open_stream"]["place"], "there");
  log_.streamComplete({"q", 0, 86399, 5, 1, 3, ""}, "there");
  EXPECT_EQ(queue()["last_complete"],
            nlohmann::json({{"at", "1970-01-01T23:59:59Z"}, {"bytes", 5}}));
  log_.streamOpened("here");
  one_.add(Count::Bytes, 7);
  EXPECT_EQ(queue()["open_stream"]["bytes"], 7) << "of this stream alone";
  log_.streamIncomplete({"q", 0, 86400, 7, 1, 3, "", Ending::Stopped}, "gone\xff", "");
  EXPECT_TRUE(queue()["open_stream"].is_null());
  EXPECT_EQ(queue()["last_incomplete"]["reason"], "gone\\xff");
  EXPECT_EQ(queue()["last_complete"]["bytes"], 5);
}

TEST_F(StatsFileTest, IsWrittenAgainOnlyAfterAChange) {
  file_.update();
  ASSERT_EQ(std::remove(path_.c_str()), 0);
  file_.update();
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre());
  one_.add(Count::Records);
  file_.update();
  EXPECT_EQ(written()["total"]["records"], 1);
}

TEST_F(StatsFileTest, LeavesNothingTemporary) {
  file_.update();
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre("stats.json"));
}

TEST_F(StatsFileTest, TellsQueuesApartWhoseNamesAreNoText) {
  StatsFile file(path_, {{"\xff\"\n", &one_, &log_}, {"\xfe\"\n", &two_, &log_}});
  file.update();
  EXPECT_TRUE(written()["queues"].contains("%FF%22%0A"));
  EXPECT_TRUE(written()["queues"].contains("%FE%22%0A"));
}

TEST(StatsFileErrors, NameTheFileAndTheSystemsError) {
  StatsFile file("/nonexistent/stats.json", {});
  try {
    file.update();
    FAIL() << "written";
  } catch (const korvex::receiver::SystemError& error) {
    EXPECT_STREQ(error.what(),
                 "writing statistics to /nonexistent/stats.json: error 2 (No such file or "
                 "directory)");
  }
}

TEST(Attempts, ReportTheFirstFailureOfEachOutage) {
  const korvex::test::LoggedText logged;
  korvexd::Attempts writes;
  const auto fail = [] { throw std::runtime_error("no disk"); };
  for (int outage = 1; outage <= 2; ++outage) {
    writes.attempt(fail);
    writes.attempt(fail);
    writes.attempt([] {});
  }
  EXPECT_EQ(writes.failures(), 4u);
  EXPECT_EQ(logged.text(), "no disk\nno disk\n");
}
