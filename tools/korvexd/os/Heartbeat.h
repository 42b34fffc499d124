#ifndef KORVEXD_HEARTBEAT_H
#define KORVEXD_HEARTBEAT_H

#include <atomic>
#include <chrono>
#include <cstdint>

namespace korvexd {

/// Shows whether a thread's loop makes progress. The loop beats before each step of its work and
/// rests while it waits for work; any thread may look.
class Heartbeat {
 public:
  using Clock = std::chrono::steady_clock;

  Heartbeat() = default;
  ~Heartbeat() {
    if (ofThisThread() == this) ofThisThread() = nullptr;
  }
  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;

  void beat() noexcept {
    ofThisThread() = this;
    lastBeat_ = Clock::now().time_since_epoch().count();
  }

  void rest() noexcept { lastBeat_ = kResting; }

  bool isResting() const noexcept { return lastBeat_ == kResting; }

  /// For what waits on purpose and with a limit, deep inside of a step.
  static void beatOfThisThread() noexcept {
    if (ofThisThread() != nullptr) ofThisThread()->beat();
  }

  /// How long ago the last beat was; zero for a loop that rests.
  Clock::duration silence() const noexcept {
    const Clock::rep last = lastBeat_;
    return last == kResting ? Clock::duration::zero()
                            : Clock::now().time_since_epoch() - Clock::duration(last);
  }

 private:
  static constexpr Clock::rep kResting = -1;

  static Heartbeat*& ofThisThread() noexcept {
    thread_local Heartbeat* heartbeat = nullptr;
    return heartbeat;
  }

  std::atomic<Clock::rep> lastBeat_{kResting};
};

}  // namespace korvexd

#endif
