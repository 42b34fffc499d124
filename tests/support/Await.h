#ifndef TESTS_SUPPORT_AWAIT_H
#define TESTS_SUPPORT_AWAIT_H

#include <chrono>
#include <thread>

namespace korvex::test {

/// Far more than anything takes, so that a loaded machine does not fail a test.
constexpr std::chrono::seconds kPatience{60};

/// Polls until the condition holds, with growing pauses. False if it never did.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds patience = kPatience) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + patience;
  auto pause = std::chrono::microseconds(50);
  while (!condition()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(pause);
    if (pause < std::chrono::milliseconds(20)) pause *= 2;
  }
  return true;
}

}  // namespace korvex::test

#endif
