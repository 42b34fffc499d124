#ifndef KORVEXD_REPORT_STREAM_LOG_H
#define KORVEXD_REPORT_STREAM_LOG_H

#include <cstdint>
#include <ctime>
#include <korvex/receiver/Counters.h>
#include <korvex/receiver/Observer.h>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "korvexd/log/QueueLog.h"
#include "korvexd/os/Heartbeat.h"
#include "korvexd/report/Capture.h"
#include "korvexd/report/QueueCounts.h"

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

/// Logs and counts what happens on one queue, and captures its messages when asked to.
class StreamLog : public korvex::receiver::Observer {
 public:
  /// Captures into the folder, if any. Throws SystemError when that cannot be used.
  StreamLog(std::string queue, const std::optional<std::string>& captureFolder);

  ~StreamLog() override;

  /// Captures this way from now on, or not at all. Any thread may call it; it does not wait for a
  /// message that is being stored.
  void captureWith(std::shared_ptr<Capture> capture) noexcept;

  /// Other settings are asked for. Any thread may call it.
  void expectChange() noexcept { changeRefused_ = false; }

  /// Whether applying the last requested settings failed. Any thread may call it.
  bool wasChangeRefused() const noexcept { return changeRefused_; }

  /// Logs what was left out in periods that are over. Any thread may call it, now and then.
  void update() noexcept;

  /// May be read by any thread.
  const QueueCounts& counts() const noexcept { return counts_; }

  /// May be looked at even when this is gone.
  std::shared_ptr<const Heartbeat> heartbeat() const noexcept { return heartbeat_; }

  /// Any thread may ask.
  StreamHistory history() const;

  /// Logs what the queue is doing, on request. Any thread may call it.
  void logState(const korvex::receiver::Counters& counters) const;

  void messageReceived(std::uint64_t number, const unsigned char* untrusted,
                       std::size_t size) noexcept override;
  void streamOpened(const std::string& place) noexcept override;
  void streamComplete(const korvex::receiver::StreamSummary& summary,
                      const std::string& place) noexcept override;
  void streamIncomplete(const korvex::receiver::StreamSummary& summary, const std::string& reason,
                        const std::string& place) noexcept override;
  void abandoningFailed(const std::string& reason) noexcept override;
  void batchRefused(std::uint64_t number,
                    const korvex::receiver::BatchCheck& check) noexcept override;
  void recordRefused(const std::string& defect) noexcept override;
  void queuesLost(const std::string& reason) noexcept override;
  void queuesNotReplaced(const std::string& reason) noexcept override;
  void queuesReplaced() noexcept override;
  void settingsChanged() noexcept override;
  void settingsNotChanged(const std::string& reason) noexcept override;
  void messagesLeft(std::size_t count) noexcept override;
  void working() noexcept override { heartbeat_->beat(); }
  void waiting() noexcept override { heartbeat_->rest(); }

 private:
  std::shared_ptr<Capture> capture() noexcept;
  void noteOpening(const std::string& place) noexcept;
  void noteEnd(const korvex::receiver::StreamSummary& summary, const std::string& reason) noexcept;
  void count(const korvex::receiver::StreamSummary& summary) noexcept;

  template <typename MakeEntry>
  void write(QueueLog::Kind kind, MakeEntry makeEntry) noexcept;

  const std::string queue_;
  mutable std::mutex mutex_;
  QueueLog log_;           ///< guarded by the mutex
  StreamHistory history_;  ///< guarded by the mutex
  std::mutex captureMutex_;
  std::shared_ptr<Capture> capture_;           ///< guarded by that mutex; itself the receiver's
  std::atomic<std::uint64_t> firstNumber_{0};  ///< messages that earlier daemons captured
  std::atomic<const Capture*> failingCapture_{nullptr};  ///< the last batch was not stored there
  std::atomic<bool> changeRefused_{false};
  QueueCounts counts_;
  const std::shared_ptr<Heartbeat> heartbeat_ = std::make_shared<Heartbeat>();
};

}  // namespace korvexd

#endif
