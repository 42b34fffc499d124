#ifndef KORVEXD_DAEMON_H
#define KORVEXD_DAEMON_H

#include <signal.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "korvexd/Options.h"
#include "korvexd/exec/ExecStore.h"
#include "korvexd/report/StatsFile.h"
#include "korvexd/report/StreamLog.h"
#include "korvexd/sink/DirectoryStore.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// Asks a daemon to log what its queues are doing.
constexpr int kReportSignal = SIGUSR1;

/// From now on that signal waits for a daemon, in threads that start later too; it would end the
/// process before.
void expectReportSignal();

/// The whole daemon: one thread for each queue, and the calling one for signals and statistics.
class Daemon {
 public:
  /// Creates the queues. Changes the process: SIGTERM, SIGINT and SIGHUP are blocked, SIGPIPE and
  /// SIGXFSZ ignored, and the file mode mask is 077. Throws std::exception when something cannot be
  /// made; no queue is left then.
  explicit Daemon(const Options& options);

  /// Serves until SIGTERM comes, or SIGINT or SIGHUP where they were not ignored at the start. What
  /// producers have sent by then is taken, open streams end as incomplete, the queues are removed.
  /// Throws SystemError when there is no thread for a queue.
  void run();

 private:
  /// One queue, with what is reported of it.
  struct Served {
    Served(const receiver::Receiver::Settings& settings, receiver::SinkFactory openSink,
           const std::optional<std::string>& captureFolder);

    StreamLog log;
    receiver::Receiver receiver;
  };

  receiver::SinkFactory sinkFactory();
  void serveQueues(const Options& options);
  void createStatsFile(const std::string& path);
  void announceServing() const;
  void awaitSignal();
  void logStreams() const;
  void doRegularly() noexcept;
  void updateStats() noexcept;

  const sigset_t endSignals_;
  const receiver::Limits limits_;
  std::optional<DirectoryStore> store_;
  std::optional<ExecStore> engines_;
  std::vector<std::unique_ptr<Served>> queues_;
  std::optional<StatsFile> statsFile_;
  bool statsFailed_ = false;
  std::atomic<bool> stop_{false};
};

}  // namespace korvexd

#endif
