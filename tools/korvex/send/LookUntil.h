#ifndef KORVEX_TOOL_LOOK_UNTIL_H
#define KORVEX_TOOL_LOOK_UNTIL_H

#include <algorithm>
#include <chrono>
#include <thread>

namespace korvex::tool {

constexpr std::chrono::steady_clock::duration kShortestSleep = std::chrono::microseconds(50);

/// Looks until `isDone`, with sleeps in between: at least `sleep`, and a quarter of the wait so
/// far, up to 4 ms. So neither a short wait becomes long nor a long one costs much. The result is
/// that of the last look; false means that the deadline has passed.
template <typename Condition>
bool lookUntil(std::chrono::steady_clock::time_point deadline, Condition isDone,
               std::chrono::steady_clock::duration sleep = kShortestSleep) {
  using Clock = std::chrono::steady_clock;
  constexpr Clock::duration kLongestSleep = std::chrono::milliseconds(4);
  const auto start = Clock::now();
  while (!isDone()) {
    const auto now = Clock::now();
    if (now >= deadline) return false;
    const auto grown = std::min((now - start) / 4, kLongestSleep);
    std::this_thread::sleep_for(std::min(std::max(sleep, grown), deadline - now));
  }
  return true;
}

}  // namespace korvex::tool

#endif
