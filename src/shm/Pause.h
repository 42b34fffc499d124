#ifndef KORVEX_SHM_PAUSE_H
#define KORVEX_SHM_PAUSE_H

#include <chrono>

namespace korvex {

/// The pauses of a loop that waits for another process by looking again and again.
///
/// They grow: a few spins, which cost least while the other side is at work on the next core; then
/// yields, which let it run on this one; then sleeps, doubling up to `longestSleep`. A loop made of
/// these is slower to notice than a condition variable by at most `longestSleep`, and unlike one
/// inside shared memory it can neither be hung nor be poisoned by a peer that dies.
class Pause {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Pause(std::chrono::microseconds longestSleep) noexcept : longestSleep_(longestSleep) {}

  /// Waits one step. A sleep does not go past the deadline, and the thread may be cancelled in it.
  void wait(Clock::time_point deadline);

  /// Whether the next step is a spin, which gives the processor to nobody else.
  bool isSpinning() const noexcept;

  /// Starts again with the shortest pause, after something happened.
  void reset() noexcept { step_ = 0; }

 private:
  std::chrono::microseconds longestSleep_;
  unsigned step_ = 0;
};

}  // namespace korvex

#endif
