#ifndef TESTS_INTEGRATION_SUPPORT_LATE_H
#define TESTS_INTEGRATION_SUPPORT_LATE_H

#include <chrono>

namespace korvex::test {

/// What a call may take beyond the time that it is given. Only a machine that stands still adds
/// more.
constexpr std::chrono::milliseconds kSlack{250};

constexpr int kAttempts = 4;

/// Does something that has a time to keep, and again when it was late: the last attempt is judged.
/// A machine that is busy with something else is excused so, a call that is always late never.
template <typename Attempt, typename IsLate>
auto againWhenLate(Attempt attempt, IsLate isLate) {
  auto result = attempt();
  for (int more = 1; more < kAttempts && isLate(result); ++more) result = attempt();
  return result;
}

}  // namespace korvex::test

#endif
