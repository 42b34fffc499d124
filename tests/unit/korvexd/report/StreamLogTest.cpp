#include <filesystem>
#include <gmock/gmock.h>

#include "korvexd/report/StreamLog.h"
#include "support/LoggedText.h"
#include "support/TemporaryFolder.h"

using korvex::test::namesIn;
using korvexd::StreamLog;
using testing::ElementsAre;
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

TEST_F(CapturingLog, GoesOnAfterTheNumbersOfAnEarlierDaemon) {
  receive(1);
  receive(2);
  StreamLog("q", captured_).messageReceived(1, nullptr, 0);
  EXPECT_THAT(namesIn(captured_),
              ElementsAre("q-00000001.batch", "q-00000002.batch", "q-00000003.batch"));
}

TEST_F(CapturingLog, ReportsTheFirstFailureOfEachOutage) {
  const korvex::test::LoggedText logged;
  for (const std::uint64_t number : {1, 4}) {
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
