#ifndef KORVEXD_SUPERVISION_H
#define KORVEXD_SUPERVISION_H

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "korvexd/metrics/MetricsFile.h"
#include "korvexd/report/Attempts.h"
#include "korvexd/report/StatsFile.h"
#include "korvexd/service/ServiceManager.h"
#include "korvexd/service/Watchdog.h"

namespace korvexd {

/// Reports the daemon's health to the service manager, with its watchdog, and to metrics
/// collectors. For one thread.
class Supervision {
 public:
  using Queues = std::vector<QueueStats>;  ///< those that are served, each with its log

  /// `manager` outlives it.
  explicit Supervision(ServiceManager& manager) : manager_(manager) {}

  /// Keeps metrics in this file from the next update on, or none. Throws nothing but
  /// std::bad_alloc.
  void keepMetrics(const std::optional<std::string>& path,
                   MetricsFile::EngineFailuresOf engineFailuresOf);

  /// Writes them at once. Throws when they cannot be written; update() would try again.
  void requireMetrics(const Queues& queues, const DaemonState& daemon);

  /// Producers may come, for the first time or after a reload.
  void ready(const Queues& queues);

  void reloading() { manager_.reloading(); }
  void stopping() { manager_.stopping(); }

  /// Call it once a second. Throws nothing but std::bad_alloc.
  void update(const Queues& queues, const DaemonState& daemon);

  /// Writes the final numbers, after serving has ended.
  void over(const Queues& queues, const DaemonState& daemon) noexcept;

 private:
  void updateMetrics(const Queues& queues, const DaemonState& daemon) noexcept;

  ServiceManager& manager_;
  const std::time_t started_ = std::time(nullptr);
  std::optional<MetricsFile> metrics_;
  Attempts metricsWrites_;
  std::optional<Watchdog> watchdog_;
};

}  // namespace korvexd

#endif
