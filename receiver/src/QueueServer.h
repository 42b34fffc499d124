#ifndef KORVEX_RECEIVER_QUEUE_SERVER_H
#define KORVEX_RECEIVER_QUEUE_SERVER_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <queue>
#include <string>
#include <vector>

#include "queues/QueuePair.h"
#include "stream/ReplySender.h"
#include "korvex/receiver/Counters.h"
#include "stream/StreamSession.h"
#include "queue/Pause.h"

namespace korvex::receiver {

/// Serves one pair of queues: receives, checks, hands on, answers.
///
/// Never waits inside a queue, and never for ever on its lock. A pair that a peer has broken is
/// removed and made anew; the stream on it ends as incomplete.
class QueueServer {
 public:
  /// What takes longer than this at the end is a disk or a producer that hangs; a supervisor kills
  /// a daemon after ten seconds or more.
  static constexpr std::chrono::seconds kDrainPatience{3};

  /// Creates the queues. Throws std::exception when that fails.
  QueueServer(Receiver::Settings settings, SinkFactory openSink, Observer& observer);

  /// One step of serving: takes at most one message. False when there was none.
  bool serveOnce() noexcept;

  /// Serves until `stop` is set, then takes the messages that are in the queue at that moment, for
  /// kDrainPatience at most, and logs how many it did not take. Call it in a thread of its own.
  void run(const std::atomic<bool>& stop) noexcept;

  const std::string& queue() const noexcept { return settings_.queue; }
  const Counters& counters() const noexcept { return counters_; }

 private:
  using Clock = MessageQueue::Clock;

  void open(Receiver::Existing existing);
  void step();
  void drain() noexcept;
  void takeRest();
  void reportUntaken();
  bool tryTakeMessage();
  bool isIdle();
  void watchQueues();
  void takeMessage(std::size_t size);
  void takeRecords(std::size_t size);
  void answer(const StreamSession::Answer& answer);
  void refuseBatch(const std::string& defect);
  void replacePair(const std::string& reason) noexcept;
  void reopen() noexcept;
  void pause() noexcept;

  const Receiver::Settings settings_;
  Observer& observer_;
  Counters counters_;
  StreamSession session_;
  std::unique_ptr<QueuePair> pair_;  ///< none while it cannot be made
  std::unique_ptr<ReplySender> replies_;
  Pause pause_;
  Clock::time_point nextLook_{};
  std::vector<unsigned char> message_;
  std::queue<ShmBatch::Entry> records_;
  std::uint64_t batchNumber_ = 0;
  bool reopenFailed_ = false;
};

}  // namespace korvex::receiver

#endif
