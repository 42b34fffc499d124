#ifndef KORVEX_QUEUE_PAUSE_H
#define KORVEX_QUEUE_PAUSE_H

#include <chrono>

namespace korvex {

/// The pauses of a loop that polls for another process.
///
/// They grow: first spins, cheapest while the other side runs on another core; then yields, which
/// let it run on this one; then sleeps, doubling up to `longestSleep`. Such a loop notices at most
/// `longestSleep` later than a condition variable, and unlike one in shared memory it cannot be
/// hung or poisoned by a peer that dies.
class Pause {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Pause(std::chrono::microseconds longestSleep) noexcept : longestSleep_(longestSleep) {}

  /// Waits one step. A sleep does not go past the deadline; it is a cancellation point.
  void wait(Clock::time_point deadline);

  /// Whether the next step is a spin, which does not yield the processor.
  bool isSpinning() const noexcept;

  /// Starts again with the shortest pause.
  void reset() noexcept { step_ = 0; }

  /// What was waited for has come. The next wait starts with a sleep if this one was long: the
  /// other side is slow, and spinning would only burn time.
  void next() noexcept;

 private:
  std::chrono::microseconds longestSleep_;
  unsigned step_ = 0;
};

}  // namespace korvex

#endif
