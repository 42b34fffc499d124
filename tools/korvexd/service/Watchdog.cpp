#include "korvexd/service/Watchdog.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "korvexd/log/LogEntry.h"
#include "korvexd/os/Thread.h"

namespace korvexd {

Watchdog::Watchdog(ServiceManager& manager) : manager_(manager) {
  if (!manager.watchdogPeriod()) return;
  const Clock::duration interval = *manager.watchdogPeriod() / 2;
  thread_ = startThread("the watchdog", [this, interval] { run(interval); });
}

Watchdog::~Watchdog() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    isOver_ = true;
  }
  changed_.notify_one();
  if (thread_.joinable()) thread_.join();
}

void Watchdog::watch(std::vector<Loop> loops) {
  const std::lock_guard<std::mutex> lock(mutex_);
  loops_ = std::move(loops);
}

void Watchdog::run(Clock::duration interval) {
  std::unique_lock<std::mutex> lock(mutex_);
  do {
    if (allMove(interval)) {
      manager_.feedWatchdog();
    } else {
      manager_.withholdFeeding();
    }
  } while (!changed_.wait_for(lock, interval, [this] { return isOver_; }));
}

bool Watchdog::allMove(Clock::duration longest) {
  const auto stuck = std::find_if(loops_.begin(), loops_.end(), [longest](const Loop& loop) {
    return loop.heartbeat->silence() >= longest;
  });
  try {
    report(stuck == loops_.end() ? "" : stuck->queue, longest);
  } catch (const std::exception&) {
    // Too little memory for the line; whether loops move counts all the same.
  }
  return stuck == loops_.end();
}

/// Once for each change: the manager's own line says only that the watchdog was not fed.
void Watchdog::report(const std::string& stuck, Clock::duration longest) {
  const std::string before = std::exchange(stuck_, stuck);
  if (stuck == before) return;
  if (stuck.empty()) {
    writeLog({Event::LoopMoves, spdlog::level::info, before, "making progress again"});
    return;
  }
  const auto silence = std::chrono::duration_cast<std::chrono::milliseconds>(longest).count();
  writeLog({Event::LoopStuck, spdlog::level::err, stuck,
            "stuck for " + std::to_string(silence) + " ms or longer; the watchdog is not fed"});
}

}  // namespace korvexd
