#ifndef KORVEXD_WATCHDOG_H
#define KORVEXD_WATCHDOG_H

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "korvexd/os/Heartbeat.h"
#include "korvexd/service/ServiceManager.h"

namespace korvexd {

/// Feeds the service manager's watchdog, in a thread of its own, as long as every loop that moves
/// data makes progress. Does nothing where nobody watches.
///
/// A loop counts as stuck when it has been silent for half the watchdog's period. So the manager
/// acts after one whole period of silence at the earliest, and after one and a half at the latest.
class Watchdog {
 public:
  struct Loop {
    std::string queue;
    std::shared_ptr<const Heartbeat> heartbeat;
  };

  /// `manager` outlives it. Throws SystemError when there is no thread to be had.
  explicit Watchdog(ServiceManager& manager);
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  /// Watches these loops from now on, in place of the others. A loop that has ended is at rest.
  void watch(std::vector<Loop> loops);

 private:
  using Clock = Heartbeat::Clock;

  void run(Clock::duration interval);
  bool allMove(Clock::duration longest);
  void report(const std::string& stuck, Clock::duration longest);

  ServiceManager& manager_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Loop> loops_;  ///< guarded by the mutex
  bool isOver_ = false;      ///< guarded by the mutex
  std::string stuck_;        ///< the queue that the log names as stuck; empty for none
  std::thread thread_;
};

}  // namespace korvexd

#endif
