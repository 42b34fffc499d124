#include <gtest/gtest.h>

#include "korvexd/log/LogBudget.h"

using korvexd::LogBudget;

namespace {

struct TwoLines : testing::Test {
  LogBudget budget{2};
  const LogBudget::Clock::time_point start = LogBudget::Clock::now();
  const LogBudget::Clock::time_point later = start + LogBudget::kPeriod;
};

}  // namespace

TEST_F(TwoLines, PassInEachPeriod) {
  EXPECT_TRUE(budget.take(start));
  EXPECT_TRUE(budget.take(start));
  EXPECT_FALSE(budget.take(start));
  budget.due(later);
  EXPECT_TRUE(budget.take(later));
}

TEST_F(TwoLines, TheOthersAreCountedOnce) {
  for (int i = 0; i < 5; ++i) budget.take(start);
  EXPECT_EQ(budget.due(later - std::chrono::nanoseconds(1)), 0u);
  EXPECT_EQ(budget.due(later), 3u);
  EXPECT_EQ(budget.due(later), 0u);
}

TEST_F(TwoLines, APeriodBeginsWithItsFirstLine) {
  EXPECT_EQ(budget.due(later), 0u);
  for (int i = 0; i < 3; ++i) budget.take(later);
  EXPECT_EQ(budget.due(later), 0u);
  EXPECT_EQ(budget.rest(), 1u);
}
