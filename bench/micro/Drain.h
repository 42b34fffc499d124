#ifndef BENCH_MICRO_DRAIN_H
#define BENCH_MICRO_DRAIN_H

#include <korvex/ShmWriter.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "queue/MessageQueue.h"

namespace bench {

/// The queues that a writer needs, emptied by the same thread: no second process disturbs the
/// clock.
class DrainedQueues {
 public:
  explicit DrainedQueues(std::size_t messageSize)
      : name_("korvex-micro-" + std::to_string(::getpid())),
        queue_(name_, {kDepth, messageSize}, kMode),
        responses_(responseName(), {kDepth, sizeof(korvex::qmx_shm_response_t)}, kMode),
        buffer_(new unsigned char[messageSize]) {}
  ~DrainedQueues() {
    korvex::MessageQueue::remove(name_);
    korvex::MessageQueue::remove(responseName());
  }
  DrainedQueues(const DrainedQueues&) = delete;
  DrainedQueues& operator=(const DrainedQueues&) = delete;

  const std::string& name() const { return name_; }
  korvex::MessageQueue& queue() { return queue_; }

  /// Takes the one message that must be there.
  void takeMessage() {
    std::size_t size = 0;
    if (queue_.tryReceive(buffer_.get(), queue_.maxMessageSize(), size) !=
        korvex::MessageQueue::Outcome::Done) {
      throw std::runtime_error("no message came");
    }
  }

 private:
  static constexpr std::size_t kDepth = 1;
  static constexpr mode_t kMode = 0600;

  std::string responseName() const { return korvex::getMessageQueueResponseName(name_); }

  std::string name_;
  korvex::MessageQueue queue_;
  korvex::MessageQueue responses_;
  std::unique_ptr<unsigned char[]> buffer_;
};

}  // namespace bench

#endif
