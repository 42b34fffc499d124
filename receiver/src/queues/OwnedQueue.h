#ifndef KORVEX_RECEIVER_OWNED_QUEUE_H
#define KORVEX_RECEIVER_OWNED_QUEUE_H

#include <sys/types.h>

#include <memory>
#include <string>

#include "korvex/receiver/Limits.h"
#include "queues/QueueObject.h"
#include "queue/MessageQueue.h"

namespace korvex::receiver {

/// A queue that this daemon created, claimed and gives up again.
///
/// It is made under a temporary name and gets its own when it is whole: nobody meets a half-made
/// queue. The claim is a lock on the shared-memory object. The system frees it when the daemon
/// dies, so a queue without claim is a dead daemon's.
class OwnedQueue {
 public:
  /// Creates and claims the queue, still under a temporary name. Throws SystemError when the system
  /// refuses, for want of memory above all; else what MessageQueue throws.
  OwnedQueue(std::string name, Limits limits, mode_t mode);

  /// Removes the name, unless it leads to somebody else's object by now.
  ~OwnedQueue();
  OwnedQueue(const OwnedQueue&) = delete;
  OwnedQueue& operator=(const OwnedQueue&) = delete;

  /// Gives the queue its name. Throws std::runtime_error when the name is taken.
  void publish();

  /// False once somebody took the name away: no producer finds the queue any more.
  bool isStillNamed() const noexcept;

  /// False once somebody cut or grew the object: no producer would take it for a queue.
  bool isWhole() const noexcept;

  MessageQueue& queue() noexcept { return *queue_; }

  const QueueView& view() const noexcept { return queue_->view(); }

 private:
  void create(Limits limits, mode_t mode);

  std::string name_;
  std::string presentName_;
  std::unique_ptr<MessageQueue> queue_;
  QueueObject claim_;
};

}  // namespace korvex::receiver

#endif
