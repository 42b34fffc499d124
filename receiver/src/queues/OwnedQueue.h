#ifndef KORVEXD_OWNED_QUEUE_H
#define KORVEXD_OWNED_QUEUE_H

#include <sys/types.h>

#include <memory>
#include <string>

#include "korvexd/os/File.h"
#include "queue/MessageQueue.h"

namespace korvexd {

/// A queue that this daemon created, claimed and gives up again.
///
/// It is made under a temporary name and gets its own when it is whole: nobody meets a half-made
/// queue. The claim is a lock on the shared-memory object. The system frees it when the daemon
/// dies, so a queue without claim is a dead daemon's.
class OwnedQueue {
 public:
  /// Creates and claims the queue, still under a temporary name. Throws SystemError when the system
  /// refuses, for want of memory above all; else what MessageQueue throws.
  OwnedQueue(std::string name, korvex::MessageQueue::Limits limits, mode_t mode);

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

  korvex::MessageQueue& queue() noexcept { return *queue_; }

  const korvex::QueueView& view() const noexcept { return queue_->view(); }

 private:
  void create(korvex::MessageQueue::Limits limits, mode_t mode);

  std::string name_;
  std::string presentName_;
  std::unique_ptr<korvex::MessageQueue> queue_;
  File claim_;
};

}  // namespace korvexd

#endif
