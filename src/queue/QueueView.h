#ifndef KORVEX_QUEUE_QUEUE_VIEW_H
#define KORVEX_QUEUE_QUEUE_VIEW_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>

namespace korvex {

/// What can be seen of a queue's shared memory without touching its lock.
///
/// The queue library opens whatever has the name: it waits forever for a half-made object, and maps
/// a truncated one only to crash later. So the object is checked first. The layout has been the
/// same from Boost 1.63 to 1.81.
///
/// A live view also shows how full the queue looks. That is a hint and may be stale: good for
/// deciding when to try, never proof that something happened.
class QueueView {
 public:
  enum class State {
    Unreachable,  ///< cannot be opened: absent, forbidden, a bad name; systemError() says why
    Unfinished,   ///< looks like a queue that its creator is still making
    Damaged,      ///< nothing that the queue library could use
    Busy,         ///< looks damaged, but its lock is taken: a peer may be changing it
    Sound
  };

  /// A view of nothing: unreachable.
  QueueView() noexcept = default;

  /// Checks the object now, and keeps a read-only mapping of it if it is sound. Never throws, never
  /// waits.
  explicit QueueView(const std::string& name) noexcept;
  ~QueueView();
  QueueView(QueueView&& other) noexcept;
  QueueView& operator=(QueueView&& other) noexcept;

  State state() const noexcept { return state_; }

  /// The errno of a failed open, stat or mmap, else 0.
  int systemError() const noexcept { return systemError_; }

  /// Limits as they were when first checked. 0 unless sound.
  std::size_t maxMessages() const noexcept { return maxMessages_; }
  std::size_t maxMessageSize() const noexcept { return maxMessageSize_; }

  /// Whether `name` still refers to the object in view. False once its owner removed or replaced
  /// it: nothing reads what is sent to it then.
  bool isStillNamed(const std::string& name) const noexcept;

  /// Whether an open file can be a queue: a sound one, one that is still being made, or one that
  /// was truncated or overwritten in part. For callers that remove it.
  static bool canBeQueue(int file) noexcept;

  /// The size of a queue's object in bytes; 0 for limits that no queue can have.
  static std::size_t fileSize(std::size_t messages, std::size_t messageSize) noexcept;

  /// What the caller is about to do with the queue. Checking more than that would take cache lines
  /// away from the other side.
  enum class Use { Send, Receive, Either };

  /// Whether the queue is still sound as far as the next message goes: its limits are unchanged,
  /// and what this use would touch lies inside the object. Costs a few reads; only while the state
  /// is sound. Says nothing about the moment after. A sound queue may look damaged while the lock
  /// is taken: peers change one field after the other.
  bool isIntact(Use use = Use::Either) const noexcept;

  /// Whether the queue is not intact, and not because a peer with the lock is changing it. Only
  /// while the state is sound.
  bool isDamaged(Use use = Use::Either) const noexcept;

  // Hints, plain reads of shared memory. Only while the state is sound.
  std::size_t messages() const noexcept;

  /// Bytes of the messages that wait. Reads a few words for each of them.
  std::uint64_t waitingBytes() const noexcept;

  bool looksFull() const noexcept { return messages() >= maxMessages_; }
  bool looksLocked() const noexcept;

  /// Whether a queue looks idle, for polling many queues in a row: reads a single cache line. Valid
  /// as long as what it looks at is mapped.
  class Glance {
   public:
    explicit Glance(const QueueView& view) noexcept : header_(view.window_) {}

    /// At the first page of a sound queue's object, wherever it is mapped.
    explicit Glance(const void* header) noexcept
        : header_(static_cast<const unsigned char*>(header)) {}

    bool looksIdle() const noexcept;

    /// Starts to load the line for a looksIdle() that follows soon.
    void prefetch() const noexcept;

   private:
    const unsigned char* header_;
  };

  /// Prefetches the message that would be received next into this core's cache, unless it is the
  /// only one, and returns how many bytes it prefetched.
  ///
  /// Most of a copy's time goes into fetching bytes that another core wrote. The library copies
  /// under the lock, where that time would hold up the sender. A prefetch reads nothing and cannot
  /// fault, so a damaged object does no harm.
  std::size_t fetchNext() noexcept;

  /// The thread that holds the lock, by its id in its own PID namespace; 0 for none.
  pid_t lockOwner() const noexcept;

  /// What kind of lock it is, which its creator decided. With another one, glibc may abort.
  std::uint32_t lockKind() const noexcept;

  /// Whether the lock's owner is certainly dead; see LockOwner.h. False where that cannot be known.
  bool isLockOwnerGone() const noexcept;

 private:
  void look(int file) noexcept;
  void judgeContent(int file, std::uint64_t fileSize) noexcept;
  void keepWindow(int file, std::size_t size) noexcept;
  void release() noexcept;
  bool areLimitsIntact() const noexcept;
  bool isFillIntact(Use use) const noexcept;
  std::uint64_t slotOf(std::size_t indexEntry) const noexcept;
  std::uint64_t number(std::size_t offset) const noexcept;
  bool isFetchable() noexcept;

  State state_ = State::Unreachable;
  int systemError_ = 0;
  std::size_t maxMessages_ = 0;
  std::size_t maxMessageSize_ = 0;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  const unsigned char* window_ = nullptr;  ///< the object, mapped read-only; owned
  std::size_t windowSize_ = 0;
  enum class Fetching { Unasked, Granted, Refused } fetching_ = Fetching::Unasked;
};

}  // namespace korvex

#endif
