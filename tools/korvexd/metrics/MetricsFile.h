#ifndef KORVEXD_METRICS_FILE_H
#define KORVEXD_METRICS_FILE_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "korvexd/metrics/Metrics.h"
#include "korvexd/metrics/QueueFill.h"
#include "korvexd/report/ReplacedFile.h"
#include "korvexd/report/StatsFile.h"

namespace korvexd {

/// What is known of the daemon beyond the queues that it serves.
struct DaemonState {
  DaemonFailures failures = {};
  std::time_t configured = 0;             ///< when a configuration was last loaded
  bool isReloadRefused = false;           ///< the last reload that was asked for
  std::vector<std::string> awaited = {};  ///< queues that cannot be made yet
};

/// Keeps the daemon's metrics in one file, for the textfile collector of Prometheus' node exporter.
/// Readers see a whole file. For one thread.
class MetricsFile {
 public:
  using EngineFailuresOf = std::function<EngineFailureCounts(const std::string& queue)>;

  /// How long the file stays as it is while nothing happens: its age tells whether there is a
  /// daemon.
  static constexpr std::time_t kLongestAge = 15;

  /// Reads from an existing file when each queue had its last complete stream, so that a restart
  /// looks neither like a backup nor like a missing one. The time is kept, too, while a queue is
  /// out of the configuration. `started` is the daemon's start time.
  MetricsFile(const std::string& path, std::time_t started, EngineFailuresOf engineFailuresOf);

  const std::string& path() const noexcept { return file_.path(); }

  /// Looks at these queues, each with its log, and writes the file when a number has changed or the
  /// file is old. Throws as ReplacedFile::update() does.
  void update(const std::vector<QueueStats>& queues, const DaemonState& daemon);

 private:
  std::time_t lastSuccessOf(const std::string& queue, std::time_t sinceTheStart);
  void watch(const std::vector<QueueStats>& queues, QueueFill::Clock::time_point now);
  QueueNumbers numbersOf(const QueueStats& queue, QueueFill::Clock::time_point now);
  void write();

  ReplacedFile file_;
  const EngineFailuresOf engineFailuresOf_;
  const std::string earlier_;  ///< what the file held before
  DaemonNumbers numbers_;
  std::map<std::string, QueueFill> fills_;        ///< by queue
  std::map<std::string, std::time_t> successes_;  ///< the last ones, of queues that are gone too
  std::string text_;                              ///< as last written
};

}  // namespace korvexd

#endif
