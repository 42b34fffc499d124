#include "queue/Pause.h"

#include <algorithm>
#include <thread>

namespace korvex {
namespace {

// Spinning lasts about 60 microseconds, longer than copying a message; a single spin is far
// shorter.
constexpr unsigned kSpins = 1024;
constexpr unsigned kInstructionsPerSpin = 4;
constexpr unsigned kYields = 64;
constexpr std::chrono::microseconds kShortestSleep{20};
constexpr unsigned kMostDoublings = 16;
constexpr unsigned kFirstSleep = kSpins + kYields;

// A wait that reached this step has slept for 620 microseconds. The next one skips all but three
// of its steps, but never sleeps for more than 320 microseconds at first.
constexpr unsigned kLongWait = kFirstSleep + 5;
constexpr unsigned kStepsBack = 3;
constexpr unsigned kLatestStart = kFirstSleep + 4;

/// Tells the processor that this is a loop that waits.
void relax() noexcept {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  __asm__ volatile("isb");  // takes about as long as x86's pause; yield does nothing on most cores
#else
  __asm__ volatile("");  // keeps the loop
#endif
}

void spin() noexcept {
  for (unsigned i = 0; i < kInstructionsPerSpin; ++i) relax();
}

}  // namespace

bool Pause::isSpinning() const noexcept { return step_ < kSpins; }

void Pause::next() noexcept {
  step_ = step_ < kLongWait ? 0 : std::min(step_ - kStepsBack, kLatestStart);
}

void Pause::wait(Clock::time_point deadline) {
  const unsigned step = step_;
  if (step < kSpins + kYields + kMostDoublings) ++step_;
  if (step < kSpins) return spin();
  if (step < kFirstSleep) return std::this_thread::yield();

  const auto grown = kShortestSleep * (1U << (step - kFirstSleep));
  const auto wanted = std::min<Clock::duration>(grown, longestSleep_);
  std::this_thread::sleep_for(std::min(wanted, deadline - Clock::now()));
}

}  // namespace korvex
