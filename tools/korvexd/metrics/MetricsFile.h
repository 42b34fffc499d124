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

/// Keeps the daemon's metrics in one file, for the textfile collector of Prometheus' node exporter.
/// Readers see a whole file. For one thread.
class MetricsFile {
 public:
  using EngineFailuresOf = std::function<EngineFailureCounts(const std::string& queue)>;

  /// How long the file stays as it is while nothing happens: its age tells whether there is a
  /// daemon.
  static constexpr std::time_t kLongestAge = 15;

  /// Takes from an existing file when each queue had its last complete stream, because a restart
  /// must not look like a backup, nor like the lack of one.
  MetricsFile(const std::string& path, EngineFailuresOf engineFailuresOf);

  /// Looks at these queues, each with its log, and writes the file when a number has changed or the
  /// file is old. `statsFailures` counts failed writes of the statistics. Throws as
  /// ReplacedFile::update() does.
  void update(const std::vector<QueueStats>& queues, std::uint64_t statsFailures);

 private:
  struct Watched {
    QueueFill fill;
    std::time_t earlierSuccess;  ///< before this daemon started
  };

  void watch(const std::vector<QueueStats>& queues, QueueFill::Clock::time_point now);
  QueueNumbers numbersOf(const QueueStats& queue, QueueFill::Clock::time_point now);
  void write();

  ReplacedFile file_;
  const EngineFailuresOf engineFailuresOf_;
  const std::string earlier_;  ///< what the file held when the daemon started
  DaemonNumbers numbers_;
  std::map<std::string, Watched> watched_;  ///< by queue
  std::string text_;                        ///< as last written
};

}  // namespace korvexd

#endif
