#ifndef TESTS_INTEGRATION_SUPPORT_LATE_H
#define TESTS_INTEGRATION_SUPPORT_LATE_H

#include <chrono>

namespace test_support {

/// What a call may take beyond the time that it is given. Only a machine that stands still adds
/// more.
constexpr std::chrono::milliseconds kSlack{250};

/// Does something that has a time to keep, and once more when it was late: what comes second is
/// judged. A machine that stood still once is excused so, a call that is always late never.
template <typename Attempt, typename IsLate>
auto againWhenLate(Attempt attempt, IsLate isLate) {
  auto result = attempt();
  if (isLate(result)) result = attempt();
  return result;
}

}  // namespace test_support

#endif
