#ifndef KORVEXD_DAEMON_H
#define KORVEXD_DAEMON_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <signal.h>
#include <string>

#include "korvexd/QueueSet.h"
#include "korvexd/Supervision.h"
#include "korvexd/config/Configuration.h"
#include "korvexd/report/Attempts.h"
#include "korvexd/report/StatsFile.h"

namespace korvexd {

/// Asks a daemon to log what its queues are doing.
constexpr int kReportSignal = SIGUSR1;

/// Blocks that signal for the calling thread and those started later, so that it stays pending
/// until a daemon handles it instead of ending the process.
void expectReportSignal();

/// The whole daemon: one thread for each queue, and the calling one for signals and statistics.
class Daemon {
 public:
  /// Creates the queues. Changes the process: SIGTERM, SIGINT and SIGHUP are blocked, SIGPIPE and
  /// SIGXFSZ ignored, and the file mode mask is 077. Throws std::exception when something cannot be
  /// made; no queue is left then. `commandLine` is what gave the settings. `manager` outlives the
  /// daemon.
  Daemon(CommandLine commandLine, const Settings& settings, ServiceManager& manager);

  /// Serves until SIGTERM comes, or SIGINT or SIGHUP where they were not ignored at the start. With
  /// a configuration file, SIGHUP reloads it instead. On shutdown, messages already queued are
  /// received, open streams get the drain timeout and then end as incomplete, and the queues are
  /// removed. While a sink hangs, that takes until it returns; another signal then ends the process
  /// at once, with exit code 128 + N. Throws SystemError when there is no thread for a queue.
  void run();

 private:
  void keepFiles();
  void awaitEnd();
  bool isEnd(int signal) const noexcept;
  void drain();
  void answerAtTheEnd(int signal);
  void endQueues();
  [[noreturn]] void endAtOnce(int signal);
  void readAgain() noexcept;
  void take(Settings settings);
  void doRegularly() noexcept;
  void followQueues();
  void updateReports() noexcept;
  void updateStats() noexcept;
  DaemonState state() const;

  const CommandLine commandLine_;
  const sigset_t signals_;
  DaemonSettings settings_;
  QueueSet queues_;
  bool hasNews_ = false;  ///< queues or settings have changed, and the reports do not show it yet
  std::optional<StatsFile> statsFile_;
  Attempts statsWrites_;
  std::time_t configured_ = std::time(nullptr);
  bool isReloadRefused_ = false;
  std::uint64_t reloadFailures_ = 0;
  std::uint64_t hangingEnds_ = 0;
  Supervision supervision_;
};

}  // namespace korvexd

#endif
