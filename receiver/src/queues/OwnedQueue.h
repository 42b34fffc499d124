#ifndef KORVEX_RECEIVER_OWNED_QUEUE_H
#define KORVEX_RECEIVER_OWNED_QUEUE_H

#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

#include "korvex/receiver/Limits.h"
#include "queue/MessageQueue.h"
#include "queues/LockWatch.h"
#include "queues/QueueObject.h"

namespace korvex::receiver {

/// A queue that this process creates, claims and removes.
///
/// It is made under a temporary name and renamed once it is complete, so that no one finds a
/// half-made queue. The claim is a file lock on the shared-memory object. The system releases it
/// when the daemon dies, so an unclaimed queue is a dead daemon's.
///
/// Peers can break a queue: die with its lock, truncate it, overwrite it. Every operation that
/// touches the memory notices and throws LockLost, MemoryLost, or what the queue library throws.
/// The queue is no longer usable then.
class OwnedQueue {
 public:
  using Outcome = MessageQueue::Outcome;

  /// Who may use it.
  struct Access {
    mode_t mode;
    std::optional<gid_t> group = {};  ///< none: the process's own
  };

  /// Creates and claims the queue, still under a temporary name. Throws SystemError if the system
  /// refuses, above all for lack of memory; otherwise what MessageQueue throws.
  OwnedQueue(std::string name, Limits limits, const Access& access);

  /// As removeName().
  ~OwnedQueue();
  OwnedQueue(const OwnedQueue&) = delete;
  OwnedQueue& operator=(const OwnedQueue&) = delete;

  /// Gives the queue its name. Throws std::runtime_error when the name is taken.
  void publish();

  /// Removes the name, unless it refers to another object by now. Peers that have the queue open
  /// keep it.
  void removeName() noexcept;

  /// Takes the next message. May wait briefly while the lock is taken.
  Outcome receive(void* buffer, std::size_t capacity, std::size_t& size);

  Outcome send(const void* data, std::size_t size, unsigned priority);

  /// Checks for a peer that died with the lock. Costs one read while the lock is free.
  void checkLock();

  /// Why producers can no longer use the queue although its memory can be touched: its name is
  /// gone, its size or its contents are not a queue's. Empty while they can.
  std::string defect();

  // Hints, as QueueView's.
  std::size_t messages();
  bool looksFull() { return messages() >= limits_.messages; }
  bool looksLocked();

  /// Unguarded: reading it may raise SIGBUS; see surviveBusError().
  const QueueView& view() const noexcept { return queue_->view(); }

  const QueueObject& object() const noexcept { return object_; }

  Limits limits() const noexcept { return limits_; }

 private:
  void create(mode_t mode);
  void claim();
  void giveTo(gid_t group, mode_t mode);
  bool isLockOverwritten() const noexcept;
  bool isStillNamed() const noexcept;
  template <typename Operation>
  Outcome noted(Operation operation);

  const std::string name_;
  const Limits limits_;
  std::string presentName_;
  std::unique_ptr<MessageQueue> queue_;
  std::uint32_t lockKind_ = 0;
  LockWatch lockWatch_;
  QueueObject object_;  ///< claimed
};

}  // namespace korvex::receiver

#endif
