#ifndef KORVEXD_METRICS_H
#define KORVEXD_METRICS_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <korvex/receiver/Counters.h>
#include <string>
#include <vector>

#include "korvexd/exec/Engine.h"
#include "korvexd/report/QueueCounts.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// What is known of one queue at one moment.
struct QueueNumbers {
  std::string name;  ///< in UTF-8
  const receiver::Counters* counters = nullptr;
  const QueueCounts* counts = nullptr;
  EngineFailureCounts engineFailures = {};
  std::time_t lastSuccess = 0;  ///< 0 for never
  std::size_t waiting = 0;
  std::size_t capacity = 0;
  double fullSeconds = 0;
};

/// A queue of the configuration that cannot be made yet.
struct AwaitedQueue {
  std::string name;             ///< in UTF-8
  std::time_t lastSuccess = 0;  ///< 0 for never
};

/// How often something went wrong in the daemon as a whole.
struct DaemonFailures {
  std::uint64_t stats = 0;          ///< writes of the statistics
  std::uint64_t reloads = 0;        ///< of the configuration
  std::uint64_t newQueues = 0;      ///< not made at the first try
  std::uint64_t notifications = 0;  ///< of the service manager
  std::uint64_t feedings = 0;       ///< of the watchdog
  std::uint64_t ends = 0;           ///< held up by a sink
};

/// What is known of the whole daemon at one moment.
struct DaemonNumbers {
  std::string name;  ///< tells daemons of one machine apart
  std::time_t started = 0;
  std::time_t written = 0;
  std::time_t configured = 0;    ///< when a configuration was last loaded
  bool isReloadRefused = false;  ///< the last reload that was asked for
  DaemonFailures failures;
  std::uint64_t metricsFailures = 0;  ///< writes of the metrics
  std::vector<QueueNumbers> queues;
  std::vector<AwaitedQueue> awaited;
};

/// Metrics that share a name. docs/monitoring.md lists them.
struct MetricFamily {
  class Samples;

  const char* name;
  const char* type;
  const char* help;
  void (*add)(Samples& to, const DaemonNumbers& from);
};

std::vector<MetricFamily> metricFamilies();

/// All of them, in the text format of Prometheus.
std::string metricsText(const DaemonNumbers& numbers);

/// The time of the queue's last complete stream, taken from such a text; 0 if it has none.
std::time_t lastSuccessIn(const std::string& metrics, const std::string& queue);

}  // namespace korvexd

#endif
