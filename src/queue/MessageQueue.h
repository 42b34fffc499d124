#ifndef KORVEX_QUEUE_MESSAGE_QUEUE_H
#define KORVEX_QUEUE_MESSAGE_QUEUE_H

#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <string>
#include <sys/types.h>

#include "queue/Pause.h"
#include "queue/QueueView.h"

namespace korvex {

/// One message queue in shared memory; the one place that knows the queue library.
///
/// Knows nothing of batches. Never waits in the queue's condition variables: a peer that dies in
/// one hangs all others there. Waits out here instead, by retrying after short pauses. Never waits
/// forever for the queue's lock either, which a dead peer may still hold.
///
/// Errors are the queue library's own exceptions, derived from std::exception. After one that says
/// the lock is broken for good, every later operation throws the same one.
///
/// Deferred cancellation takes effect where it waits, and nowhere else; the queue stays as it was.
/// While the cancelled thread's stack unwinds, a send is tried only once. Used by one thread at a
/// time.
class MessageQueue {
 public:
  using Clock = std::chrono::steady_clock;

  enum class Outcome {
    Done,
    NotReady,  ///< full when sending, empty when receiving
    LockTaken  ///< the queue's lock was held for longer than any healthy peer holds it, or its
               ///< holder is in the middle of a change
  };

  /// How many messages a queue holds, and the bytes of the largest.
  struct Limits {
    std::size_t messages;
    std::size_t messageSize;
  };

  /// Opens an existing queue. Waits until the deadline for one that is still being created, or that
  /// looks damaged while its lock is taken; refuses at once one that is missing, damaged or not a
  /// queue.
  MessageQueue(const std::string& name, Clock::time_point deadline);

  /// Creates a queue that must not exist yet, with exactly these permissions whatever the umask,
  /// and reserves its memory, so that a lack of room fails here and not in a later sender.
  MessageQueue(const std::string& name, Limits limits, mode_t mode);

  ~MessageQueue();

  /// The errno behind one of the queue library's exceptions; 0 if there is none.
  static int systemErrorOf(const std::exception& error) noexcept;

  std::size_t maxMessageSize() const noexcept { return view_.maxMessageSize(); }

  /// How much longer than its deadline a send may take while only the lock is in the way. Callers
  /// are promised a quarter of a second; the rest is slack for a busy machine.
  static constexpr std::chrono::milliseconds kLockGrace{200};

  /// Sends as soon as there is room; false if there was none by the deadline. Tries at least once,
  /// even after the deadline. If the lock is merely taken then, waits for it up to kLockGrace,
  /// unless its owner is dead.
  bool sendBefore(const void* data, std::size_t size, unsigned priority,
                  Clock::time_point deadline);

  Outcome trySend(const void* data, std::size_t size, unsigned priority);

  /// Takes the message with the highest priority; `size` becomes its length. The buffer must be as
  /// large as the queue's largest message, or the library refuses.
  Outcome tryReceive(void* buffer, std::size_t capacity, std::size_t& size);

  /// As tryReceive, but prefetches the message first and gives a sender a moment to release the
  /// lock instead of contending for it.
  Outcome tryReceiveNext(void* buffer, std::size_t capacity, std::size_t& size);

  /// Takes and releases the lock: Done or LockTaken, or throws if the lock is broken.
  Outcome tryLock();

  /// What can be seen of this queue without its lock.
  const QueueView& view() const noexcept { return view_; }

  /// Unlinks the name; processes that have the queue open keep it. False if there was no such name.
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

  static constexpr std::chrono::milliseconds kLongestSleep{4};

  std::unique_ptr<Mapping> mapping_;
  QueueView view_;
  Pause sendPause_{kLongestSleep};  ///< remembers how long a receiver takes
};

}  // namespace korvex

#endif
