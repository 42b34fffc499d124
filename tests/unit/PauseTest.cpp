#include "shm/Pause.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <time.h>

#include <string>
#include <vector>

using korvex::Pause;
using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

// A program of its own: it takes the place of the system's sleep and yield.
namespace {

constexpr long long kNanoseconds = 1000000000;

std::vector<std::string> steps;

}  // namespace

extern "C" int sched_yield() noexcept {
  steps.push_back("yield");
  return 0;
}

extern "C" int nanosleep(const timespec* wanted, timespec*) {
  steps.push_back("sleep " + std::to_string(wanted->tv_sec * kNanoseconds + wanted->tv_nsec));
  return 0;
}

namespace {

/// What that many waits do.
std::vector<std::string> wait(Pause& pause, int times, Pause::Clock::duration left = hours(1)) {
  steps.clear();
  const Pause::Clock::time_point deadline = Pause::Clock::now() + left;
  for (int i = 0; i < times; ++i) pause.wait(deadline);
  return steps;
}

constexpr int kSpins = 1024;
constexpr int kSpinsAndYields = 1088;

}  // namespace

TEST(PauseSteps, SpinsAtFirst) {
  Pause pause(milliseconds(4));
  EXPECT_THAT(wait(pause, kSpins), IsEmpty());
}

TEST(PauseSteps, SaysUntilWhenItSpins) {
  Pause pause(milliseconds(4));
  wait(pause, kSpins - 1);
  EXPECT_TRUE(pause.isSpinning());
  wait(pause, 1);
  EXPECT_FALSE(pause.isSpinning());
}

TEST(PauseSteps, YieldsThen) {
  Pause pause(milliseconds(4));
  wait(pause, kSpins);
  EXPECT_EQ(wait(pause, 64), std::vector<std::string>(64, "yield"));
}

TEST(PauseSteps, SleepsAtLastTwiceAsLongEachTime) {
  Pause pause(milliseconds(4));
  wait(pause, kSpinsAndYields);
  EXPECT_THAT(wait(pause, 10),
              ElementsAre("sleep 20000", "sleep 40000", "sleep 80000", "sleep 160000",
                          "sleep 320000", "sleep 640000", "sleep 1280000", "sleep 2560000",
                          "sleep 4000000", "sleep 4000000"));
}

TEST(PauseSteps, StopsDoublingBeforeTheNumberGrowsTooLarge) {
  Pause pause(seconds(100));
  wait(pause, kSpinsAndYields + 15);
  EXPECT_THAT(wait(pause, 3),
              ElementsAre("sleep 655360000", "sleep 1310720000", "sleep 1310720000"));
  wait(pause, 100);
  EXPECT_THAT(wait(pause, 1), ElementsAre("sleep 1310720000"));
}

TEST(PauseSteps, StartsAnewAfterAReset) {
  Pause pause(milliseconds(4));
  wait(pause, kSpinsAndYields + 5);
  pause.reset();
  EXPECT_THAT(wait(pause, kSpins + 1), ElementsAre("yield"));
}

TEST(PauseSteps, SleepsNoLongerThanToTheDeadline) {
  Pause pause(seconds(100));
  wait(pause, kSpinsAndYields + 17);
  ASSERT_EQ(wait(pause, 1, milliseconds(500)).size(), 1u);
  const long long slept = std::stoll(steps[0].substr(sizeof "sleep"));
  EXPECT_LE(slept, kNanoseconds / 2);
}

TEST(PauseSteps, DoesNotSleepAfterTheDeadline) {
  Pause pause(seconds(100));
  wait(pause, kSpinsAndYields + 17);
  EXPECT_THAT(wait(pause, 1, microseconds(-1)), IsEmpty());
}
