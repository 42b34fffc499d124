#include <functional>
#include <gmock/gmock.h>
#include <regex>
#include <set>
#include <sstream>

#include "korvexd/metrics/Metrics.h"
#include "korvexd/metrics/MetricsFile.h"
#include "support/DaemonQueues.h"
#include "support/TemporaryFolder.h"

using korvex::receiver::Count;
using korvex::receiver::Counters;
using korvex::test::contentsOf;
using korvexd::DaemonNumbers;
using korvexd::EngineFailureCounts;
using korvexd::MetricsFile;
using korvexd::QueueCounts;
using korvexd::StreamLog;
using testing::HasSubstr;
using testing::Not;

namespace {

class MetricsTest : public testing::Test {
 protected:
  DaemonNumbers numbers(const std::string& queue) const {
    DaemonNumbers numbers;
    numbers.name = "night";
    numbers.queues.emplace_back();
    numbers.queues.back().name = queue;
    numbers.queues.back().counters = &counters_;
    numbers.queues.back().counts = &counts_;
    return numbers;
  }

  Counters counters_;
  QueueCounts counts_;
};

class MetricsFileTest : public testing::Test {
 protected:
  std::string written() const { return contentsOf(path_); }
  void update(MetricsFile& file) { file.update({{"shop", &counters_, &log_}}, {}); }
  static EngineFailureCounts noFailures(const std::string&) { return {}; }

  korvex::test::TemporaryFolder folder_;
  std::string path_ = folder_ / "night.prom";
  Counters counters_;
  StreamLog log_{"shop", std::nullopt};
};

/// What ended at this time.
korvex::receiver::StreamSummary endedAt(std::time_t time) {
  korvex::receiver::StreamSummary summary;
  summary.closed = time;
  return summary;
}

}  // namespace

TEST_F(MetricsTest, WriteEachFamilyWithHelpAndType) {
  counters_.add(Count::Bytes, 5);
  EXPECT_THAT(korvexd::metricsText(numbers("shop")),
              HasSubstr("# HELP korvex_bytes_total Bytes of data that were handed to a sink.\n"
                        "# TYPE korvex_bytes_total counter\n"
                        "korvex_bytes_total{queue=\"shop\"} 5\n"));
}

TEST_F(MetricsTest, EscapeWhatLabelsCannotHold) {
  EXPECT_THAT(korvexd::metricsText(numbers("a\"b\\c\nd")),
              HasSubstr("korvex_bytes_total{queue=\"a\\\"b\\\\c\\nd\"} 0\n"));
}

TEST_F(MetricsTest, CountStreamsByResultAndOpenOnes) {
  counts_.ended[static_cast<std::size_t>(korvex::receiver::Ending::CutOff)] = 3;
  counters_.add(Count::StreamsOpened, 4);
  counters_.add(Count::StreamsIncomplete, 3);
  const std::string text = korvexd::metricsText(numbers("shop"));
  EXPECT_THAT(text, HasSubstr("korvex_streams_total{queue=\"shop\",result=\"cut_off\"} 3\n"));
  EXPECT_THAT(text, HasSubstr("korvex_stream_open{queue=\"shop\"} 1\n"));
}

TEST_F(MetricsTest, CountFromZero) {
  const std::string text = korvexd::metricsText(numbers("shop"));
  // The lost lines of the log are the whole process's.
  const std::regex total("^korvex_(?!log_lines)\\w+_total(?:\\{[^}]*\\})? (.*)$",
                         std::regex::multiline);
  std::size_t totals = 0;
  for (std::sregex_iterator at(text.begin(), text.end(), total), end; at != end; ++at, ++totals) {
    EXPECT_EQ(std::stod((*at)[1]), 0) << at->str();
  }
  EXPECT_GT(totals, 40u);
}

TEST_F(MetricsTest, TellEveryEnding) {
  const std::vector<std::string> results = {"complete",    "stopped",     "cut_off",
                                            "silent",      "corrupt",     "not_stored",
                                            "queues_lost", "daemon_ended"};
  EXPECT_EQ(results.size(), QueueCounts::kEndings);
  for (const std::string& result : results) {
    EXPECT_THAT(korvexd::metricsText(numbers("shop")), HasSubstr("result=\"" + result + "\"} 0\n"));
  }
}

TEST_F(MetricsTest, KeepTheSecondsThatAQueueWasFull) {
  DaemonNumbers now = numbers("shop");
  now.queues.back().fullSeconds = 1234567.8915;
  EXPECT_THAT(korvexd::metricsText(now),
              HasSubstr("korvex_queue_full_seconds_total{queue=\"shop\"} 1234567.89"));
}

TEST_F(MetricsTest, GiveEachNumberToItsOwnFamily) {
  DaemonNumbers now = numbers("shop");
  now.started = 1001;
  now.written = 1002;
  now.configured = 1003;
  now.failures = {1, 2, 3, 4, 5, 6};
  now.metricsFailures = 7;
  now.queues.back().waiting = 8;
  now.queues.back().capacity = 9;
  now.queues.back().lastSuccess = 1004;
  const std::string text = korvexd::metricsText(now);
  const std::pair<const char*, const char*> samples[] = {
      {"build_info{daemon=\"night\",version=\"0.1.0\"}", "1"},
      {"start_timestamp_seconds{daemon=\"night\"}", "1001"},
      {"written_timestamp_seconds{daemon=\"night\"}", "1002"},
      {"config_last_reload_successful{daemon=\"night\"}", "1"},
      {"config_last_reload_success_timestamp_seconds{daemon=\"night\"}", "1003"},
      {"file_write_failures_total{daemon=\"night\",file=\"stats\"}", "1"},
      {"config_reload_failures_total{daemon=\"night\"}", "2"},
      {"queue_creation_failures_total{daemon=\"night\"}", "3"},
      {"service_manager_failures_total{daemon=\"night\"}", "4"},
      {"watchdog_withheld_total{daemon=\"night\"}", "5"},
      {"shutdown_hangs_total{daemon=\"night\"}", "6"},
      {"file_write_failures_total{daemon=\"night\",file=\"metrics\"}", "7"},
      {"messages_waiting{queue=\"shop\"}", "8"},
      {"queue_capacity_messages{queue=\"shop\"}", "9"},
      {"last_success_timestamp_seconds{queue=\"shop\"}", "1004"},
      {"queue_served{queue=\"shop\"}", "1"}};
  for (const auto& [sample, value] : samples) {
    EXPECT_THAT(text, HasSubstr(std::string("\nkorvex_") + sample + " " + value + "\n"));
  }
}

TEST_F(MetricsTest, TellWhatIsRefusedOrNotServed) {
  DaemonNumbers now = numbers("shop");
  now.isReloadRefused = true;
  counts_.isServed = false;
  const std::string text = korvexd::metricsText(now);
  EXPECT_THAT(text, HasSubstr("korvex_config_last_reload_successful{daemon=\"night\"} 0\n"));
  EXPECT_THAT(text, HasSubstr("korvex_queue_served{queue=\"shop\"} 0\n"));
}

TEST_F(MetricsTest, ShowNoStreamOpenOnceAllHaveEnded) {
  counters_.add(Count::StreamsOpened, 4);
  counters_.add(Count::StreamsComplete, 1);
  counters_.add(Count::StreamsIncomplete, 3);
  EXPECT_THAT(korvexd::metricsText(numbers("shop")),
              HasSubstr("korvex_stream_open{queue=\"shop\"} 0\n"));
}

TEST_F(MetricsTest, NameNoSampleTwice) {
  std::istringstream lines(korvexd::metricsText(numbers("shop")));
  std::set<std::string> samples;
  for (std::string line; std::getline(lines, line);) {
    if (line.front() == '#') continue;
    EXPECT_TRUE(samples.insert(line.substr(0, line.find("} "))).second) << line;
  }
}

TEST(MetricFamilies, AreTheOnesThatThePageLists) {
  std::set<std::string> documented;
  const std::string page = contentsOf(KORVEX_DOCS "/monitoring.md");
  const std::regex row("\\| `(korvex_\\w+)` \\| (counter|gauge) \\|");
  for (std::sregex_iterator at(page.begin(), page.end(), row), end; at != end; ++at) {
    EXPECT_TRUE(documented.insert((*at)[1].str() + " " + (*at)[2].str()).second) << (*at)[1];
  }
  std::set<std::string> known;
  for (const auto& family : korvexd::metricFamilies()) {
    known.insert(std::string(family.name) + " " + family.type);
  }
  EXPECT_EQ(known, documented);
}

TEST(MetricFamilies, CoverEachWarningAndErrorOfTheLog) {
  std::set<std::string> known;
  for (const auto& family : korvexd::metricFamilies()) known.insert(family.name);
  const std::string page = contentsOf(KORVEX_DOCS "/logs.md");
  const std::regex row("\\| `(\\w+)` \\| (?:warning|error).* \\|(?: `(\\w+)`)? \\|");
  for (std::sregex_iterator at(page.begin(), page.end(), row), end; at != end; ++at) {
    EXPECT_EQ(known.count((*at)[2]), 1u) << (*at)[1];
  }
}

TEST_F(MetricsFileTest, IsNamedInWhatIsTheDaemons) {
  MetricsFile file(path_, 0, noFailures);
  update(file);
  EXPECT_THAT(written(), HasSubstr("korvex_build_info{daemon=\"night\",version=\""));
}

TEST_F(MetricsFileTest, HoldsTheDaemonsTimesAndWhatWaits) {
  korvex::test::RawQueue queue(korvex::test::uniqueQueueName(), 2, 16);
  queue.post("a", 1);
  korvexd::DaemonState state;
  state.configured = 1000000003;
  MetricsFile(path_, 1000000002, noFailures).update({{queue.name(), &counters_, &log_}}, state);
  EXPECT_THAT(written(),
              HasSubstr("korvex_start_timestamp_seconds{daemon=\"night\"} 1000000002\n"));
  EXPECT_THAT(written(), HasSubstr("korvex_config_last_reload_success_timestamp_seconds"
                                   "{daemon=\"night\"} 1000000003\n"));
  EXPECT_THAT(written(), HasSubstr("korvex_messages_waiting{queue=\"" + queue.name() + "\"} 1\n"));
}

TEST_F(MetricsFileTest, LooksAgainWhereTheQueuesThreadHasMoved) {
  korvex::test::RawQueue queue(korvex::test::uniqueQueueName(), 8, 16);
  MetricsFile file(path_, 0, noFailures);
  const auto expectWaiting = [&](std::size_t number) {
    file.update({{queue.name(), &counters_, &log_}}, {});
    EXPECT_THAT(written(), HasSubstr("korvex_messages_waiting{queue=\"" + queue.name() + "\"} " +
                                     std::to_string(number) + "\n"));
  };
  expectWaiting(0);
  queue.post("a", 1);
  expectWaiting(0);  // its thread only waits
  const std::function<void()> moves[] = {[this] { counters_.add(Count::QueueReplacements); },
                                         [this] {
                                           counters_.add(Count::QueueReplacements);
                                           log_.queuesReplaced();
                                         },
                                         [this] {
                                           counters_.add(Count::Batches);
                                           log_.queuesReplaced();
                                         },
                                         [this] { log_.queuesReplaced(); },
                                         [this] { log_.settingsChanged(); }};
  for (const auto& move : moves) {
    move();
    expectWaiting(queue.waiting());
    queue.post("b", 1);
  }
}

TEST_F(MetricsFileTest, IsWrittenAgainOnlyAfterAChange) {
  MetricsFile file(path_, 0, noFailures);
  update(file);
  ASSERT_EQ(std::remove(path_.c_str()), 0);
  update(file);
  EXPECT_THAT(korvex::test::namesIn(folder_.path()), testing::IsEmpty()) << "not yet old";
  counters_.add(Count::Bytes);
  update(file);
  EXPECT_THAT(written(), HasSubstr("korvex_bytes_total{queue=\"shop\"} 1\n"));
}

TEST_F(MetricsFileTest, KeepsTheLastSuccessOfAnEarlierDaemon) {
  log_.streamComplete(endedAt(1000000001), "");
  MetricsFile first(path_, 0, noFailures);
  update(first);
  StreamLog fresh("shop", std::nullopt);
  MetricsFile second(path_, 0, noFailures);
  second.update({{"shop", &counters_, &fresh}, {"other", &counters_, &fresh}}, {});
  const std::string sample = "korvex_last_success_timestamp_seconds{queue=";
  EXPECT_THAT(written(), HasSubstr(sample + "\"shop\"} 1000000001\n"));
  EXPECT_THAT(written(), HasSubstr(sample + "\"other\"} 0\n"));
  fresh.streamComplete(endedAt(1000000002), "");
  second.update({{"shop", &counters_, &fresh}}, {});
  EXPECT_THAT(written(), HasSubstr(sample + "\"shop\"} 1000000002\n"));
}

TEST_F(MetricsFileTest, ForgetsQueuesThatAreNoLongerServed) {
  MetricsFile file(path_, 0, noFailures);
  update(file);
  file.update({}, {});
  EXPECT_THAT(written(), Not(HasSubstr("shop")));
}

TEST_F(MetricsFileTest, KeepsTheLastSuccessOfAReturningQueue) {
  log_.streamComplete(endedAt(1000000001), "");
  MetricsFile file(path_, 0, noFailures);
  update(file);
  file.update({}, {});
  StreamLog fresh("shop", std::nullopt);
  file.update({{"shop", &counters_, &fresh}}, {});
  EXPECT_THAT(written(),
              HasSubstr("korvex_last_success_timestamp_seconds{queue=\"shop\"} 1000000001\n"));
}

TEST_F(MetricsFileTest, KnowsAQueueThatCannotBeMade) {
  log_.streamComplete(endedAt(1000000001), "");
  MetricsFile file(path_, 0, noFailures);
  update(file);
  korvexd::DaemonState state;
  state.awaited = {"shop", "new"};
  file.update({}, state);
  const std::string sample = "korvex_last_success_timestamp_seconds{queue=";
  EXPECT_THAT(written(), HasSubstr("korvex_queue_served{queue=\"shop\"} 0\n"));
  EXPECT_THAT(written(), HasSubstr("korvex_queue_served{queue=\"new\"} 0\n"));
  EXPECT_THAT(written(), HasSubstr(sample + "\"shop\"} 1000000001\n"));
  EXPECT_THAT(written(), HasSubstr(sample + "\"new\"} 0\n"));
}

TEST_F(MetricsFileTest, GivesNoReasonWhereThereIsNone) {
  MetricsFile file(path_, 0, noFailures);
  update(file);
  EXPECT_THAT(written(), HasSubstr("korvex_batches_refused_total{queue=\"shop\",reason="));
  EXPECT_THAT(written(), Not(HasSubstr("\"none\"")));
}

TEST_F(MetricsFileTest, CountsEnginesByQueue) {
  MetricsFile file(path_, 0, [](const std::string& queue) {
    EngineFailureCounts counts = {};
    counts[static_cast<std::size_t>(korvexd::EngineFailure::Killed)] = queue == "shop" ? 2 : 0;
    return counts;
  });
  update(file);
  EXPECT_THAT(written(),
              HasSubstr("korvex_engine_failures_total{queue=\"shop\",reason=\"killed\"} 2\n"));
}
