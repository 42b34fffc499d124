#ifndef KORVEXD_QUEUE_SERVER_H
#define KORVEXD_QUEUE_SERVER_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <queue>
#include <string>
#include <vector>

#include "korvexd/Capture.h"
#include "korvexd/LockWatch.h"
#include "korvexd/QueueLog.h"
#include "korvexd/QueuePair.h"
#include "korvexd/ReplySender.h"
#include "korvexd/Stats.h"
#include "korvexd/StreamSession.h"
#include "shm/Pause.h"

namespace korvexd {

/// Serves one pair of queues: receives, checks, hands on, answers.
///
/// Never waits inside a queue, and never for ever on its lock. A pair that a peer has broken is
/// removed and made anew; the stream on it ends as incomplete.
class QueueServer {
 public:
  /// What takes longer than this at the end is a disk or a producer that hangs; a supervisor kills
  /// a daemon after ten seconds or more.
  static constexpr std::chrono::seconds kDrainPatience{3};

  struct Settings {
    std::string queue;
    korvex::MessageQueue::Limits limits;
    mode_t mode;
    QueuePair::Existing existing;
    SinkFactory openSink;
    std::optional<std::string> captureFolder;
    std::optional<std::chrono::seconds> idleTimeout;  ///< of a stream; none: it may be silent
  };

  /// Creates the queues. Throws std::exception when that fails.
  explicit QueueServer(const Settings& settings);

  /// Serves until `stop` is set, then takes the messages that are in the queue at that moment, for
  /// kDrainPatience at most, and logs how many it did not take. Call it in a thread of its own.
  void run(const std::atomic<bool>& stop) noexcept;

  const std::string& queue() const noexcept { return settings_.queue; }
  const Stats& stats() const noexcept { return stats_; }

 private:
  void open(QueuePair::Existing existing);
  void step();
  void drain() noexcept;
  void takeRest();
  void reportUntaken() const;
  bool tryTakeMessage();
  bool isIdle() const noexcept;
  void watchQueues();
  void watchStream();
  bool stillFinishing() noexcept;
  void sayFinishing();
  void takeEmptyBatches();
  void takeNextMessage();
  bool receive(std::vector<unsigned char>& message, std::size_t& size);
  void noteMessage(const std::vector<unsigned char>& message, std::size_t size);
  void takeMessage(std::size_t size);
  void takeRecords(std::size_t size);
  void answer(const StreamSession::Answer& answer);
  void refuseBatch(const std::string& defect);
  void capture(const std::vector<unsigned char>& message, std::size_t size) noexcept;
  void replacePair(const std::string& reason) noexcept;
  void reopen() noexcept;
  void pause() noexcept;

  const Settings settings_;
  Stats stats_;
  QueueLog log_;
  StreamSession session_;
  std::optional<Capture> capture_;
  std::unique_ptr<QueuePair> pair_;  ///< none while it cannot be made
  std::unique_ptr<ReplySender> replies_;
  LockWatch lockWatch_;
  korvex::Pause pause_;
  LockWatch::Clock::time_point nextLook_{};
  LockWatch::Clock::time_point lastSign_{};       ///< of a producer's life
  LockWatch::Clock::time_point nextFinishing_{};  ///< when the producer hears of it again
  const std::atomic<bool>* stop_ = nullptr;
  std::vector<unsigned char> message_;
  std::vector<unsigned char> next_;      ///< came while the sink was finishing
  std::optional<std::size_t> nextSize_;  ///< none while it is empty
  std::queue<korvex::ShmBatch::Entry> records_;
  std::uint64_t batchNumber_ = 0;
  bool reopenFailed_ = false;
};

}  // namespace korvexd

#endif
