#ifndef KORVEX_RECEIVER_QUEUE_SERVER_H
#define KORVEX_RECEIVER_QUEUE_SERVER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "idle/IdleWatcher.h"
#include "korvex/receiver/Receiver.h"
#include "queue/Pause.h"
#include "queues/QueuePair.h"
#include "stream/ReplySender.h"
#include "stream/StreamSession.h"

namespace korvex::receiver {

/// What a Receiver is made of: receives, checks, passes on, replies.
class QueueServer {
 public:
  /// If the end takes longer than this, a disk or a producer hangs. A supervisor kills a daemon
  /// after ten seconds or more.
  static constexpr std::chrono::seconds kDrainPatience{3};

  QueueServer(Receiver::Settings settings, SinkFactory openSink, Observer& observer);

  /// Ends an open stream as incomplete and removes the queues, unless run() has done so.
  ~QueueServer();
  QueueServer(const QueueServer&) = delete;
  QueueServer& operator=(const QueueServer&) = delete;

  void run(const std::atomic<bool>& stop) noexcept;

  // As Receiver's.
  void change(const Receiver::Settings& settings, SinkFactory openSink);
  void retire() noexcept;
  bool hasRetired() const noexcept { return hasRetired_; }

  /// Takes at most one message, or pauses. False when there was none.
  bool serveOnce() noexcept;

  const std::string& queue() const noexcept { return settings_.queue; }
  const Counters& counters() const noexcept { return counters_; }

 private:
  using Clock = MessageQueue::Clock;

  /// Room for the largest message, left as it is: the system gives the memory when it is touched.
  using Buffer = std::unique_ptr<unsigned char[]>;

  struct Change {
    Receiver::Settings settings;
    SinkFactory openSink;
  };

  void open(Receiver::Existing existing);
  void takeOrders();
  void tryChange();
  bool mayReplacePair();
  void takeSettings(const Receiver::Settings& settings);
  bool replacePairFor(const Receiver::Settings& settings, const Receiver::Settings& before);
  void prepareRetirement();
  bool tryStep() noexcept;
  bool step();
  void drain() noexcept;
  void takeRest();
  void removeQueues() noexcept;
  bool tryTakeMessage();
  bool isIdle();
  void watchQueues();
  void watchStream();
  bool stillFinishing() noexcept;
  void sayFinishing();
  void takeEmptyBatches();
  void takeNextMessage();
  bool receive(const Buffer& message, std::size_t& size);
  void takeMessage(std::size_t size);
  void takeRecords();
  void takeRecord(const Record& record);
  void answer(const StreamSession::Answer& answer);
  void refuseBatch(const BatchCheck& check);
  void replacePair(const std::string& reason) noexcept;
  void dropPair() noexcept;
  void reopen() noexcept;
  void pause() noexcept;
  void pauseWhileIdle(Clock::time_point now) noexcept;
  Clock::time_point nextLookAtStream() const noexcept;
  bool mayBeLost() noexcept;

  Receiver::Settings settings_;  ///< the queue's name never changes
  Observer& observer_;
  Counters counters_;
  StreamSession session_;
  std::unique_ptr<QueuePair> pair_;  ///< none while it cannot be made
  std::unique_ptr<ReplySender> replies_;
  Pause pause_;
  std::optional<IdlePlace> idlePlace_;  ///< none without a watch
  Clock::time_point nextLook_{};
  Clock::time_point nextStreamLook_{};
  Clock::time_point lastSign_{};       ///< of a producer's life
  Clock::time_point nextFinishing_{};  ///< when the producer hears of it again
  const std::atomic<bool>* stop_ = nullptr;
  Buffer message_;
  Buffer next_;                          ///< came while the sink was finishing
  std::optional<std::size_t> nextSize_;  ///< none while it is empty
  std::uint64_t messageNumber_ = 0;
  bool reopenFailed_ = false;
  Clock::time_point nextRetry_{};            ///< when to make lost queues again
  std::chrono::milliseconds retryPause_{0};  ///< how long to wait after the next failure
  std::mutex changeMutex_;
  std::optional<Change> change_;  ///< guarded by the mutex
  std::atomic<bool> hasChange_{false};
  std::atomic<bool> isToRetire_{false};
  std::atomic<bool> hasOrders_{false};  ///< given since the last look
  std::optional<std::size_t> rest_;     ///< messages to take before streams are refused
  bool refusesStreams_ = false;
  std::atomic<bool> hasRetired_{false};
};

}  // namespace korvex::receiver

#endif
