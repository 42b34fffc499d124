#ifndef KORVEX_RECEIVER_OWNED_QUEUE_H
#define KORVEX_RECEIVER_OWNED_QUEUE_H

#include <sys/types.h>

#include <memory>
#include <string>

#include "korvex/receiver/Limits.h"
#include "queue/MessageQueue.h"
#include "queues/LockWatch.h"
#include "queues/QueueObject.h"

namespace korvex::receiver {

/// A queue that this process created, claimed and gives up again.
///
/// It is made under a temporary name and gets its own when it is whole: nobody meets a half-made
/// queue. The claim is a lock on the shared-memory object. The system frees it when the daemon
/// dies, so a queue without claim is a dead daemon's.
///
/// Peers can break a queue: die with its lock, cut its memory, overwrite it. Every operation that
/// touches the memory notices and throws: LockLost, MemoryLost, or what the queue library throws.
/// The queue is of no more use then.
class OwnedQueue {
 public:
  using Outcome = MessageQueue::Outcome;

  /// Creates and claims the queue, still under a temporary name. Throws SystemError when the system
  /// refuses, for want of memory above all; else what MessageQueue throws.
  OwnedQueue(std::string name, Limits limits, mode_t mode);

  /// Removes the name, unless it leads to somebody else's object by now.
  ~OwnedQueue();
  OwnedQueue(const OwnedQueue&) = delete;
  OwnedQueue& operator=(const OwnedQueue&) = delete;

  /// Gives the queue its name. Throws std::runtime_error when the name is taken.
  void publish();

  /// Takes the next message, for which there may be a short wait while somebody has the lock.
  Outcome receive(void* buffer, std::size_t capacity, std::size_t& size);

  Outcome send(const void* data, std::size_t size, unsigned priority);

  /// Looks for a peer that died with the lock. Costs one read while nobody has it.
  void checkLock();

  /// Why producers can no longer use the queue although its memory can be touched: its name is
  /// gone, its size or its contents are not a queue's. Empty while they can.
  std::string defect();

  // Hints, as QueueView's.
  std::size_t messages();
  bool looksFull() { return messages() >= limits_.messages; }
  bool looksLocked();

  Limits limits() const noexcept { return limits_; }

 private:
  void create(mode_t mode);
  bool isStillNamed() const noexcept;
  bool isWhole() const noexcept;
  template <typename Operation>
  Outcome noted(Operation operation);

  const std::string name_;
  const Limits limits_;
  std::string presentName_;
  std::unique_ptr<MessageQueue> queue_;
  LockWatch lockWatch_;
  QueueObject claim_;
};

}  // namespace korvex::receiver

#endif
