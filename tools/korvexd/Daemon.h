#ifndef KORVEXD_DAEMON_H
#define KORVEXD_DAEMON_H

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "korvexd/sink/DirectoryStore.h"
#include "korvexd/Options.h"
#include "korvexd/report/StreamLog.h"
#include "korvexd/report/StatsFile.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// The whole daemon: one thread for each queue, and the calling one for signals and statistics.
class Daemon {
 public:
  /// Creates the queues. Blocks SIGTERM and SIGINT for the process, ignores SIGPIPE and SIGXFSZ.
  /// Throws std::exception when something cannot be made; no queue is left then.
  explicit Daemon(const Options& options);

  /// Serves until SIGTERM or SIGINT comes. Open streams end as incomplete, the queues are removed.
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
  void awaitSignal();
  void updateStats() noexcept;

  std::optional<DirectoryStore> store_;
  std::vector<std::unique_ptr<Served>> queues_;
  std::optional<StatsFile> statsFile_;
  bool statsFailed_ = false;
  std::atomic<bool> stop_{false};
};

}  // namespace korvexd

#endif
