#ifndef KORVEXD_DAEMON_H
#define KORVEXD_DAEMON_H

#include <signal.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "korvexd/Options.h"
#include "korvexd/ServedQueue.h"
#include "korvexd/Sinks.h"
#include "korvexd/report/StatsFile.h"

namespace korvexd {

/// The whole daemon: one thread for each queue, and the calling one for signals and statistics.
class Daemon {
 public:
  /// Creates the queues. Changes the process: SIGTERM, SIGINT and SIGHUP are blocked, SIGPIPE and
  /// SIGXFSZ ignored, and the file mode mask is 077. Throws std::exception when something cannot be
  /// made; no queue is left then.
  explicit Daemon(const Options& options);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// Serves until SIGTERM comes, or SIGINT or SIGHUP where they were not ignored at the start. What
  /// producers have sent by then is taken, open streams end as incomplete, the queues are removed.
  /// Throws SystemError when there is no thread for a queue.
  void run();

 private:
  void serveQueues(const Options& options);
  void createStatsFile(const std::string& path);
  void announceServing() const;
  void awaitSignal();
  void doRegularly() noexcept;
  void updateStats() noexcept;

  const sigset_t endSignals_;
  std::atomic<bool> stop_{false};
  Sinks sinks_;
  std::vector<std::unique_ptr<ServedQueue>> queues_;
  std::optional<StatsFile> statsFile_;
  bool statsFailed_ = false;
};

}  // namespace korvexd

#endif
