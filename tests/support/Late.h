#ifndef TESTS_SUPPORT_LATE_H
#define TESTS_SUPPORT_LATE_H

#include <chrono>

namespace korvex::test {

/// How late a call may be. Only a stalled machine adds more.
constexpr std::chrono::milliseconds kSlack{250};

constexpr int kAttempts = 4;

/// Tries something with a deadline again when it was late, and returns the last attempt. That
/// excuses a busy machine, but not a call that is always late.
template <typename Attempt, typename IsLate>
auto againWhenLate(Attempt attempt, IsLate isLate) {
  auto result = attempt();
  for (int more = 1; more < kAttempts && isLate(result); ++more) result = attempt();
  return result;
}

}  // namespace korvex::test

#endif
