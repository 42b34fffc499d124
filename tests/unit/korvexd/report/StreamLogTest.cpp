#include <algorithm>
#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>

#include "korvexd/report/StreamLog.h"
#include "support/Late.h"
#include "support/LoggedText.h"
#include "support/TemporaryFolder.h"

using korvex::test::namesIn;
using korvexd::StreamLog;
using testing::ElementsAre;
using testing::EndsWith;
namespace fs = std::filesystem;

namespace {

/// The log of a queue whose messages are captured.
class CapturingLog : public testing::Test {
 protected:
  void receive(std::uint64_t number) { log_.messageReceived(number, nullptr, 0); }

  korvex::test::TemporaryFolder folder_;
  const std::string captured_ = folder_.makeFolder("captured");
  StreamLog log_{"q", captured_};
};

}  // namespace

TEST(StreamLog, KnowsWhetherItsQueueIsServed) {
  StreamLog log("q", std::nullopt);
  EXPECT_TRUE(log.counts().isServed);
  log.queuesLost("removed");
  EXPECT_FALSE(log.counts().isServed);
  log.settingsChanged();
  EXPECT_TRUE(log.counts().isServed);
  log.settingsNotChanged("no memory");
  EXPECT_FALSE(log.counts().isServed);
  log.queuesReplaced();
  EXPECT_TRUE(log.counts().isServed);
}

TEST(StreamLog, SaysWhereAStreamIsIfAnywhere) {
  const korvex::test::LoggedText logged;
  StreamLog log("q", std::nullopt);
  korvex::receiver::StreamSummary summary;
  summary.bytes = 3;
  for (const char* place : {"", "there"}) {
    log.streamOpened(place);
    log.streamIncomplete(summary, "why", place);
  }
  EXPECT_EQ(logged.text(),
            "q: stream opened\nq: stream incomplete (why), 3 bytes, nothing stored\n"
            "q: stream opened, there\nq: stream incomplete (why), 3 bytes, there\n");
}

TEST(StreamLog, WarnsOfNoStreamThatItsProducerStopped) {
  const korvex::test::LoggedText logged;
  spdlog::default_logger()->set_pattern("%l");
  StreamLog log("q", std::nullopt);
  korvex::receiver::StreamSummary summary;
  for (const auto ending : {korvex::receiver::Ending::Stopped, korvex::receiver::Ending::CutOff}) {
    summary.ending = ending;
    log.streamIncomplete(summary, "why", "");
  }
  EXPECT_EQ(logged.text(), "info\nwarning\n");
}

TEST_F(CapturingLog, NumbersDamagedBatchesAsTheCaptureDoes) {
  receive(1);
  receive(2);
  StreamLog later("q", captured_);
  const korvex::test::LoggedText logged;
  later.batchRefused(1, korvex::receiver::BatchCheck(nullptr, 0));
  EXPECT_THAT(logged.text(), testing::HasSubstr("q: batch 3 is damaged: "));
}

TEST_F(CapturingLog, GoesOnAfterTheNumbersOfAnEarlierDaemon) {
  receive(1);
  receive(2);
  StreamLog("q", captured_).messageReceived(1, nullptr, 0);
  EXPECT_THAT(namesIn(captured_),
              ElementsAre("q-00000001.batch", "q-00000002.batch", "q-00000003.batch"));
}

TEST_F(CapturingLog, ReportsTheFirstFailureOfEachOutage) {
  const korvex::test::LoggedText logged;
  for (const std::uint64_t number : {1u, 4u}) {
    fs::rename(captured_, folder_ / "away");
    receive(number);
    receive(number + 1);
    fs::rename(folder_ / "away", captured_);
    receive(number + 2);
  }
  const std::string moved = ": capture folder was moved, replaced or unmounted: " + captured_;
  EXPECT_EQ(logged.text(), "q: batch 1" + moved + "\nq: batch 4" + moved + "\n");
  EXPECT_THAT(namesIn(captured_), ElementsAre("q-00000003.batch", "q-00000006.batch"));
}

namespace {

/// What a peer can have logged without end.
struct Provocation {
  const char* name;
  void (*provoke)(StreamLog& log);
  int most;           ///< lines in ten seconds
  const char* title;  ///< of those that were too many

  friend std::ostream& operator<<(std::ostream& out, const Provocation& provocation) {
    return out << provocation.name;
  }
};

const korvex::receiver::StreamSummary kSummary{"q", 0, 0, 3, 1, 4, "0123456789abcdef"};
const korvex::receiver::BatchCheck kDamage(nullptr, 0);

const Provocation kProvocations[] = {
    {"StreamOpened", [](StreamLog& log) { log.streamOpened("place"); }, 200, "opened streams"},
    {"StreamComplete", [](StreamLog& log) { log.streamComplete(kSummary, "place"); }, 200,
     "ended streams"},
    {"StreamIncomplete", [](StreamLog& log) { log.streamIncomplete(kSummary, "why", "place"); },
     200, "ended streams"},
    {"BatchRefused", [](StreamLog& log) { log.batchRefused(1, kDamage); }, 10, "damaged batches"},
    {"RecordRefused", [](StreamLog& log) { log.recordRefused("defect"); }, 10, "refused records"},
    {"AbandoningFailed", [](StreamLog& log) { log.abandoningFailed("why"); }, 10, "sink failures"},
    {"QueuesLost", [](StreamLog& log) { log.queuesLost("why"); }, 10, "lost queues"},
    {"QueuesNotReplaced", [](StreamLog& log) { log.queuesNotReplaced("why"); }, 10, "lost queues"},
    {"QueuesReplaced", [](StreamLog& log) { log.queuesReplaced(); }, 10, "lost queues"},
    {"MessagesLeft", [](StreamLog& log) { log.messagesLeft(1); }, 10, "lost queues"},
    {"SettingsChanged", [](StreamLog& log) { log.settingsChanged(); }, 10, "lost queues"},
    {"SettingsNotChanged", [](StreamLog& log) { log.settingsNotChanged("why"); }, 10,
     "lost queues"},
};

constexpr int kTooMany = 3;

class FloodedStreamLog : public testing::TestWithParam<Provocation> {
 protected:
  struct Flood {
    std::string text;
    bool isLate;  ///< the limit for the next ten seconds counts as well

    auto lines() const { return std::count(text.begin(), text.end(), '\n'); }
  };

  /// Everything that is logged until the log's end.
  static Flood flood() {
    const korvex::test::LoggedText logged;
    const auto start = std::chrono::steady_clock::now();
    {
      StreamLog log("q", std::nullopt);
      for (int i = 0; i < GetParam().most + kTooMany; ++i) GetParam().provoke(log);
    }
    return {logged.text(), std::chrono::steady_clock::now() - start >= std::chrono::seconds(10)};
  }
};

INSTANTIATE_TEST_SUITE_P(, FloodedStreamLog, testing::ValuesIn(kProvocations),
                         [](const auto& flood) { return std::string(flood.param.name); });

}  // namespace

TEST_P(FloodedStreamLog, CountsWhatIsTooMuch) {
  const Flood found =
      korvex::test::againWhenLate(flood, [](const Flood& last) { return last.isLate; });
  EXPECT_EQ(found.lines(), GetParam().most + 1) << found.text;
  EXPECT_THAT(found.text, EndsWith("\nq: 3 more lines about " + std::string(GetParam().title) +
                                   " were suppressed within 10 s\n"));
}

TEST_P(FloodedStreamLog, LeavesRoomForOtherKinds) {
  const korvex::test::LoggedText logged;
  StreamLog log("q", std::nullopt);
  for (int i = 0; i < GetParam().most + kTooMany; ++i) GetParam().provoke(log);
  for (const Provocation& other : kProvocations) {
    if (std::string(other.title) == GetParam().title) continue;
    const std::string before = logged.text();
    other.provoke(log);
    EXPECT_NE(logged.text(), before) << other.name;
  }
}
