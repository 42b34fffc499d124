#ifndef KORVEX_TESTS_FAULTS_STALLS_H
#define KORVEX_TESTS_FAULTS_STALLS_H

#include <atomic>
#include <chrono>
#include <thread>

namespace korvex::test {

/// Watches the machine itself: a thread that asks for short sleeps and sees how much longer they
/// get. A call that came back late while the whole machine stood still proves nothing.
class Stalls {
 public:
  Stalls() : thread_([this] { watch(); }) {}
  ~Stalls() {
    isOver_ = true;
    thread_.join();
  }
  Stalls(const Stalls&) = delete;
  Stalls& operator=(const Stalls&) = delete;

  /// The longest stall that ended after `since`, in milliseconds. Counts one at a time: the last.
  double longestMsSince(std::chrono::steady_clock::time_point since) const {
    return since.time_since_epoch().count() < lastEnd_.load() ? lastMs_.load() : 0;
  }

 private:
  void watch() {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kPeriod{10};
    constexpr double kNoticedMs = 100;
    while (!isOver_) {
      const auto before = Clock::now();
      std::this_thread::sleep_for(kPeriod);
      const std::chrono::duration<double, std::milli> extra = Clock::now() - before - kPeriod;
      if (extra.count() < kNoticedMs) continue;
      lastMs_ = extra.count();
      lastEnd_ = Clock::now().time_since_epoch().count();
    }
  }

  std::atomic<bool> isOver_{false};
  std::atomic<double> lastMs_{0};
  std::atomic<std::chrono::steady_clock::rep> lastEnd_{0};
  std::thread thread_;
};

}  // namespace korvex::test

#endif
