#include <gmock/gmock.h>

#include "korvexd/exec/EngineLog.h"
#include "korvexd/log/LogWriter.h"

using korvexd::EngineLog;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class EngineLogTest : public testing::Test {
 protected:
  void take(const std::string& bytes) { log_.take(bytes, now_); }
  void takeLines(unsigned number) {
    for (unsigned i = 0; i < number; ++i) take("line\n");
  }

  EngineLog::Clock::time_point now_ = EngineLog::Clock::now();
  std::vector<std::string> lines_;
  EngineLog log_{[this](const std::string& line) { lines_.push_back(line); }};
};

}  // namespace

TEST_F(EngineLogTest, PrintsLinesHoweverTheyCome) {
  take("on");
  take("e\ntwo\nthr");
  EXPECT_THAT(lines_, ElementsAre("one", "two"));
  take("ee\n");
  EXPECT_THAT(lines_, ElementsAre("one", "two", "three"));
}

TEST_F(EngineLogTest, TakesACarriageReturnForAnEnd) {
  take("10 %\r20 %\r\ndone\n\n\n");
  EXPECT_THAT(lines_, ElementsAre("10 %", "20 %", "done"));
}

TEST_F(EngineLogTest, PrintsWhatIsBegunAtTheEnd) {
  take("no line feed");
  EXPECT_THAT(lines_, IsEmpty());
  log_.end();
  log_.end();
  EXPECT_THAT(lines_, ElementsAre("no line feed"));
}

TEST_F(EngineLogTest, KnowsTheLastLine) {
  EXPECT_EQ(log_.lastLine(), "");
  take("one\ntwo\n\n");
  EXPECT_EQ(log_.lastLine(), "two");
  take("thr");
  EXPECT_EQ(log_.lastLine(), "thr");
}

TEST_F(EngineLogTest, ShowsWhatIsNoText) {
  take("a\x1b[31m\xff\n");
  EXPECT_THAT(lines_, ElementsAre("a\\x1b[31m\\xff"));
  EXPECT_EQ(log_.lastLine(), "a\\x1b[31m\\xff");
}

TEST_F(EngineLogTest, CutsALongLine) {
  take(std::string(512, 'x') + "\n");
  take(std::string(500, 'y'));
  take(std::string(20, 'y') + "\nshort\n");
  EXPECT_THAT(lines_, ElementsAre(std::string(512, 'x'),
                                  std::string(512, 'y') + "... (8 more bytes)", "short"));
}

TEST_F(EngineLogTest, CountsTheLinesThatAreTooMany) {
  const std::uint64_t heldBefore = korvexd::logLosses().held;
  takeLines(100);
  EXPECT_THAT(lines_, SizeIs(100));
  takeLines(7);
  take("last\n");
  EXPECT_THAT(lines_, SizeIs(100));
  EXPECT_EQ(log_.lastLine(), "last");
  log_.end();
  ASSERT_THAT(lines_, SizeIs(101));
  EXPECT_EQ(lines_.back(), "(8 more lines)");
  EXPECT_EQ(korvexd::logLosses().held - heldBefore, 8u);
}

TEST_F(EngineLogTest, PrintsAgainInTheNextPeriod) {
  takeLines(103);
  now_ += EngineLog::kPeriod - milliseconds(1);
  takeLines(1);
  EXPECT_THAT(lines_, SizeIs(100));
  now_ += milliseconds(1);
  take("again\n");
  ASSERT_THAT(lines_, SizeIs(102));
  EXPECT_EQ(lines_[100], "(4 more lines)");
  EXPECT_EQ(lines_[101], "again");
}
