#ifndef KORVEX_SHM_MESSAGE_QUEUE_H
#define KORVEX_SHM_MESSAGE_QUEUE_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "queue/QueueView.h"

namespace korvex {

/// One message queue in shared memory; the one place that knows the queue library.
///
/// Knows nothing of batches. Never enters the queue's condition variables: a peer that dies inside
/// one takes down everybody else there. Waiting is done out here, by trying again after short
/// pauses. Never waits forever on the queue's lock either, which a dead peer may have kept.
///
/// Errors are the queue library's own exceptions, derived from std::exception. After one that says
/// that the lock is broken for good, every further operation throws the same.
///
/// A thread may be cancelled (deferred, as is the default) where it waits, and nowhere else; the
/// queue is as it was then. What such a thread still sends while its stack unwinds is tried once.
/// Used by one thread at a time.
class MessageQueue {
 public:
  using Clock = std::chrono::steady_clock;

  enum class Outcome {
    Done,
    NotReady,  ///< full when sending, empty when receiving
    LockTaken  ///< somebody held the queue's lock for longer than any healthy peer does, or holds
               ///< it in the middle of a change
  };

  /// How many messages a queue holds, and of how many bytes at most.
  struct Limits {
    std::size_t messages;
    std::size_t messageSize;
  };

  /// Opens an existing queue. One that is still being made, or looks damaged while somebody has its
  /// lock, is waited for until the deadline; one that is absent, damaged or no queue at all is
  /// refused at once.
  MessageQueue(const std::string& name, Clock::time_point deadline);

  /// Creates a queue that must not exist yet, with exactly these permissions whatever the umask,
  /// and reserves its memory: without room the constructor fails instead of a later sender.
  MessageQueue(const std::string& name, Limits limits, mode_t mode);

  ~MessageQueue();

  std::size_t maxMessageSize() const noexcept { return view_.maxMessageSize(); }

  /// How much longer than its deadline a send may take while the lock alone is in its way. Callers
  /// are promised a quarter of a second; the rest is for a busy machine.
  static constexpr std::chrono::milliseconds kLockGrace{200};

  /// Sends as soon as there is room. False when there was none until the deadline. Tries at least
  /// once, even when the deadline has passed: a lock that is merely taken then is waited for, up to
  /// kLockGrace, unless its owner is gone.
  bool sendBefore(const void* data, std::size_t size, unsigned priority,
                  Clock::time_point deadline);

  Outcome trySend(const void* data, std::size_t size, unsigned priority);

  /// Takes the message with the highest priority; `size` becomes its length. The buffer must be as
  /// large as the queue's largest message, or the library refuses.
  Outcome tryReceive(void* buffer, std::size_t capacity, std::size_t& size);

  /// As tryReceive, for a message that is on its way: leaves a sender some time to finish with the
  /// lock instead of fighting for it, and fetches the bytes meanwhile.
  Outcome tryReceiveNext(void* buffer, std::size_t capacity, std::size_t& size);

  /// Takes the lock and gives it back: Done or LockTaken, or the error of a lock that is broken.
  Outcome tryLock();

  /// What can be seen of this queue without its lock.
  const QueueView& view() const noexcept { return view_; }

  /// Takes the name away. Who has the queue open keeps it. False when there was no such name.
  static bool remove(const std::string& name) noexcept;

 private:
  struct Mapping;

  void open(const std::string& name, Clock::time_point deadline);
  bool isOpenedAtOnce(const std::string& name);
  bool isChanging(QueueView::Use use) const;
  bool looksBusy() const noexcept { return view_.looksFull() || view_.looksLocked(); }
  bool isTooLate(Outcome outcome, Clock::time_point due, bool& hasAskedForOwner) const noexcept;
  template <typename Operation>
  Outcome attempt(QueueView::Use use, Operation operation);

  std::unique_ptr<Mapping> mapping_;
  QueueView view_;
};

}  // namespace korvex

#endif
