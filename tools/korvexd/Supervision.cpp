#include "korvexd/Supervision.h"

#include <utility>

#include "korvexd/service/StatusText.h"

namespace korvexd {
namespace {

std::string statusOf(const Supervision::Queues& queues) {
  std::vector<const receiver::Counters*> counters;
  for (const QueueStats& queue : queues) counters.push_back(queue.counters);
  return statusText(counters);
}

std::vector<Watchdog::Loop> loopsOf(const Supervision::Queues& queues) {
  std::vector<Watchdog::Loop> loops;
  for (const QueueStats& queue : queues) loops.push_back({queue.queue, queue.log->heartbeat()});
  return loops;
}

}  // namespace

void Supervision::keepMetrics(const std::optional<std::string>& path,
                              MetricsFile::EngineFailuresOf engineFailuresOf) {
  if (!path) return metrics_.reset();
  if (metrics_ && metrics_->path() == *path) return;
  metrics_.emplace(*path, started_, std::move(engineFailuresOf));
  metricsWrites_ = {};
}

void Supervision::requireMetrics(const Queues& queues, const DaemonState& daemon) {
  if (metrics_) metrics_->update(queues, daemon);
}

void Supervision::ready(const Queues& queues) {
  if (!watchdog_) watchdog_.emplace(manager_);
  watchdog_->watch(loopsOf(queues));
  manager_.ready(statusOf(queues));
}

void Supervision::update(const Queues& queues, const DaemonState& daemon) {
  updateMetrics(queues, daemon);
  manager_.status(statusOf(queues));
}

void Supervision::over(const Queues& queues, const DaemonState& daemon) noexcept {
  watchdog_.reset();
  updateMetrics(queues, daemon);
}

void Supervision::updateMetrics(const Queues& queues, const DaemonState& daemon) noexcept {
  if (!metrics_) return;
  metricsWrites_.attempt([&] {
    DaemonState whole = daemon;
    whole.failures.notifications = manager_.failures();
    whole.failures.feedings = manager_.feedingsWithheld();
    metrics_->update(queues, whole);
  });
}

}  // namespace korvexd
