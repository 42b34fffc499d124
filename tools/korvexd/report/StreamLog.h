#ifndef KORVEXD_REPORT_STREAM_LOG_H
#define KORVEXD_REPORT_STREAM_LOG_H

#include <korvex/receiver/Counters.h>
#include <korvex/receiver/Observer.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>

#include "korvexd/report/Capture.h"
#include "korvexd/report/QueueLog.h"

namespace korvexd {

/// What became of one queue's streams so far.
struct StreamHistory {
  struct Open {
    std::time_t since;
    std::string place;
  };
  struct End {
    std::time_t at;
    std::uint64_t bytes;
    std::string reason;  ///< empty when the stream was complete
  };

  std::optional<Open> open;
  std::optional<End> lastComplete;
  std::optional<End> lastIncomplete;
  std::uint64_t endedBytes = 0;  ///< of all streams that ended

  /// What the open stream has so far, out of all bytes that were ever handed to a sink.
  std::uint64_t openBytes(const korvex::receiver::Counters& counters) const noexcept {
    return counters.get(korvex::receiver::Count::Bytes) - endedBytes;
  }
};

/// Logs what happens on one queue, and captures its messages when asked to.
class StreamLog : public korvex::receiver::Observer {
 public:
  /// Captures into the folder, if any. Throws SystemError when that cannot be used.
  StreamLog(std::string queue, const std::optional<std::string>& captureFolder);

  ~StreamLog() override;

  /// Logs what was left out in periods that are over. Any thread may call it, now and then.
  void update();

  /// Any thread may ask.
  StreamHistory history() const;

  /// Logs what the queue is doing, for somebody who asked. Any thread may call it.
  void logState(const korvex::receiver::Counters& counters) const;

  /// Messages that could not be captured. May be read by any thread.
  std::uint64_t captureFailures() const noexcept { return captureFailures_; }

  void messageReceived(std::uint64_t number, const unsigned char* untrusted,
                       std::size_t size) noexcept override;
  void streamOpened(const std::string& place) noexcept override;
  void streamComplete(const korvex::receiver::StreamSummary& summary,
                      const std::string& place) noexcept override;
  void streamIncomplete(const korvex::receiver::StreamSummary& summary, const std::string& reason,
                        const std::string& place) noexcept override;
  void abandoningFailed(const std::string& reason) noexcept override;
  void batchRefused(std::uint64_t number, const std::string& defect) noexcept override;
  void recordRefused(const std::string& defect) noexcept override;
  void queuesLost(const std::string& reason) noexcept override;
  void queuesNotReplaced(const std::string& reason) noexcept override;
  void queuesReplaced() noexcept override;
  void messagesLeft(std::size_t count) noexcept override;

 private:
  void noteEnd(const korvex::receiver::StreamSummary& summary, const std::string& reason) noexcept;
  template <typename... Values>
  void write(QueueLog::Kind kind, spdlog::level::level_enum level, const char* format,
             const Values&... values) noexcept;

  const std::string queue_;
  mutable std::mutex mutex_;
  QueueLog log_;           ///< guarded by the mutex
  StreamHistory history_;  ///< guarded by the mutex
  std::optional<Capture> capture_;
  std::uint64_t firstNumber_ = 0;  ///< messages that earlier daemons captured
  std::atomic<std::uint64_t> captureFailures_{0};
};

}  // namespace korvexd

#endif
