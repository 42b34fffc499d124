#ifndef KORVEX_TOOL_LOOK_UNTIL_H
#define KORVEX_TOOL_LOOK_UNTIL_H

#include <algorithm>
#include <chrono>
#include <thread>

namespace korvex::tool {

constexpr std::chrono::steady_clock::duration kShortestSleep = std::chrono::microseconds(50);

/// Looks until `isDone`, with a sleep between looks that grows from `sleep` to 4 ms, so that
/// neither a short wait becomes long nor a long one costs much. The result is that of the last
/// look; false means that the deadline has passed.
template <typename Condition>
bool lookUntil(std::chrono::steady_clock::time_point deadline, Condition isDone,
               std::chrono::steady_clock::duration sleep = kShortestSleep) {
  using Clock = std::chrono::steady_clock;
  constexpr Clock::duration kLongestSleep = std::chrono::milliseconds(4);
  while (!isDone()) {
    const auto now = Clock::now();
    if (now >= deadline) return false;
    std::this_thread::sleep_for(std::min(sleep, deadline - now));
    sleep = std::min(2 * sleep, kLongestSleep);
  }
  return true;
}

}  // namespace korvex::tool

#endif
