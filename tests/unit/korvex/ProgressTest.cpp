#include <gtest/gtest.h>
#include <sstream>

#include "Progress.h"

namespace {

using korvex::tool::Progress;
using korvex::tool::progressLine;
using korvex::tool::ProgressState;
using std::chrono::milliseconds;
using std::chrono::seconds;

const Progress::Clock::time_point kStart{seconds(1000)};

struct ProgressDrawing : testing::Test {
  std::ostringstream terminal;
  Progress progress{terminal, [] { return std::size_t{81}; }};
};

}  // namespace

TEST(ProgressLine, ShowsPercentBarBytesRateAndTimeLeft) {
  const ProgressState half = {500000000, 1000000000, seconds(2)};
  EXPECT_EQ(progressLine(half, 70),
            " 50% [==========           ] 500.0 MB of 1.0 GB, 250.0 MB/s, 0:02 left");
}

TEST(ProgressLine, FillsTheBarAtTheEnd) {
  const ProgressState all = {100, 100, seconds(1)};
  EXPECT_EQ(progressLine(all, 48), "100% [======] 100 B of 100 B, 100 B/s, 0:00 left");
}

TEST(ProgressLine, RoundsThePercentageDown) {
  const ProgressState nearly = {999, 1000, seconds(1)};
  EXPECT_EQ(progressLine(nearly, 20).substr(0, 4), " 99%");
}

TEST(ProgressLine, LeavesTheBarOutWhenThereIsNoRoom) {
  const ProgressState half = {50, 100, seconds(1)};
  EXPECT_EQ(progressLine(half, 40), " 50% 50 B of 100 B, 50 B/s, 0:01 left");
}

TEST(ProgressLine, IsCutToTheWidth) {
  const ProgressState half = {50, 100, seconds(1)};
  EXPECT_EQ(progressLine(half, 10), " 50% 50 B ");
  EXPECT_EQ(progressLine(half, 0), "");
}

TEST(ProgressLine, WithoutATotalShowsBytesRateAndTime) {
  const ProgressState pipe = {1500, std::nullopt, seconds(75)};
  EXPECT_EQ(progressLine(pipe, 80), "1.5 kB, 20 B/s, 1:15");
}

TEST(ProgressLine, GivesUpOnATotalThatWasExceeded) {
  const ProgressState grown = {300, 200, seconds(1)};
  EXPECT_EQ(progressLine(grown, 80), "300 B, 300 B/s, 0:01");
}

TEST(ProgressLine, KnowsNoTimeLeftBeforeTheFirstByte) {
  const ProgressState none = {0, 100, seconds(1)};
  EXPECT_EQ(progressLine(none, 40), "  0% 0 B of 100 B, 0 B/s, -:-- left");
}

TEST(ProgressLine, EmptyInputIsComplete) {
  const ProgressState empty = {0, 0, seconds(0)};
  EXPECT_EQ(progressLine(empty, 40), "100% 0 B of 0 B, 0 B/s, -:-- left");
}

TEST(ProgressLine, HasABarOfFiveToFiftyColumns) {
  const ProgressState slow = {1, 1000000000000, seconds(1)};
  const std::string numbers = "1 B of 1.0 TB, 1 B/s, 99:59:59 left";  // no more than that
  EXPECT_EQ(progressLine(slow, 47), "  0% " + numbers);
  EXPECT_EQ(progressLine(slow, 48), "  0% [     ] " + numbers);
  EXPECT_EQ(progressLine(slow, 200), "  0% [" + std::string(50, ' ') + "] " + numbers);
}

TEST_F(ProgressDrawing, RedrawsInPlaceAndLeavesTheLastColumnFree) {
  progress.start(std::nullopt, kStart);
  progress.show(5000, kStart + seconds(1));
  EXPECT_EQ(terminal.str(), "\r5.0 kB, 5.0 kB/s, 0:01\x1b[K");
}

TEST_F(ProgressDrawing, DrawsAtMostTenTimesASecond) {
  progress.start(std::nullopt, kStart);
  progress.show(1, kStart + milliseconds(99));
  EXPECT_EQ(terminal.str(), "");
  progress.show(1, kStart + milliseconds(100));
  const std::string once = terminal.str();
  EXPECT_NE(once, "");
  progress.show(2, kStart + milliseconds(199));
  EXPECT_EQ(terminal.str(), once);
  progress.show(2, kStart + milliseconds(200));
  EXPECT_NE(terminal.str(), once);
}

TEST_F(ProgressDrawing, OfAWaitSaysWhatForAndSinceWhen) {
  progress.start(std::nullopt, kStart);
  progress.showWait("the engine is finishing", 5000, kStart, kStart + seconds(75));
  EXPECT_EQ(terminal.str(), "\rthe engine is finishing: 5.0 kB sent 1:15 ago\x1b[K");
}

TEST_F(ProgressDrawing, OfAWaitIsCutAndSeldom) {
  Progress narrow(terminal, [] { return std::size_t{12}; });
  narrow.start(std::nullopt, kStart);
  narrow.showWait("the engine is finishing", 1, kStart, kStart + milliseconds(99));
  EXPECT_EQ(terminal.str(), "");
  narrow.showWait("the engine is finishing", 1, kStart, kStart + milliseconds(100));
  narrow.showWait("the engine is finishing", 1, kStart, kStart + milliseconds(199));
  EXPECT_EQ(terminal.str(), "\rthe engine \x1b[K");
}

TEST_F(ProgressDrawing, ClearTakesTheLineAwayOnce) {
  progress.start(std::nullopt, kStart);
  progress.show(1, kStart + seconds(1));
  terminal.str("");
  progress.clear();
  progress.clear();
  EXPECT_EQ(terminal.str(), "\r\x1b[K");
}

TEST_F(ProgressDrawing, ClearWritesNothingWhenNothingWasDrawn) {
  progress.start(1, kStart);
  progress.clear();
  EXPECT_EQ(terminal.str(), "");
}

TEST_F(ProgressDrawing, SurvivesATerminalWithoutColumns) {
  Progress narrow(terminal, [] { return std::size_t{0}; });
  narrow.start(100, kStart);
  narrow.show(1, kStart + seconds(1));
  EXPECT_EQ(terminal.str(), "\r\x1b[K");
}
