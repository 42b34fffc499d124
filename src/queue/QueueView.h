#ifndef KORVEX_SHM_QUEUE_VIEW_H
#define KORVEX_SHM_QUEUE_VIEW_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace korvex {

/// What can be seen of a queue's shared memory without touching its lock.
///
/// The queue library opens whatever lies under a name: it waits forever for a half-made object and
/// maps a cut one, to crash later. So the object is looked at first. The layout is the one that the
/// library has had, unchanged, from release 1.63 to 1.81 on x86-64.
///
/// A live view can also tell how full the queue looks. That is a hint and may be old when it is
/// read: good for deciding when to try, never a reason to believe that something happened.
class QueueView {
 public:
  enum class State {
    Unreachable,  ///< cannot be opened: absent, forbidden, a bad name; systemError() says why
    Unfinished,   ///< looks like a queue that its creator is still making
    Damaged,      ///< nothing that the queue library could use
    Busy,         ///< looks damaged, but its lock is taken: somebody may just be changing it
    Sound
  };

  /// Looks at nothing: unreachable.
  QueueView() noexcept = default;

  /// Looks at the object now, and keeps a read-only window on it when it is sound. Never throws,
  /// never waits.
  explicit QueueView(const std::string& name) noexcept;
  ~QueueView();
  QueueView(QueueView&& other) noexcept;
  QueueView& operator=(QueueView&& other) noexcept;

  State state() const noexcept { return state_; }

  /// The errno of a failed open or look, else 0.
  int systemError() const noexcept { return systemError_; }

  /// Limits as they were at the first look. 0 unless sound.
  std::size_t maxMessages() const noexcept { return maxMessages_; }
  std::size_t maxMessageSize() const noexcept { return maxMessageSize_; }

  /// Whether `name` still leads to the object that was looked at. False once its owner removed or
  /// replaced it: what is sent to it then is read by nobody.
  bool isStillNamed(const std::string& name) const noexcept;

  /// Whether an open file can be a queue: a sound one, one that is still being made, or what
  /// became of one when it was cut or overwritten in part. For those who remove it.
  static bool canBeQueue(int file) noexcept;

  /// The size of a queue's object with these limits, in bytes; 0 when that is none or too much.
  static std::size_t fileSize(std::size_t messages, std::size_t messageSize) noexcept;

  /// What somebody is about to do with the queue. Looking at more would cost the other side the
  /// bytes that it has at hand.
  enum class Use { Send, Receive, Either };

  /// Whether the queue still is what it was at the first look, as far as the next message goes: its
  /// limits are the same, and what this use would touch lies inside the object. Costs a few reads;
  /// only while the state is sound. Says nothing about the moment after. A sound queue may look
  /// otherwise while the lock is taken: its peers change one field after the other.
  bool isIntact(Use use = Use::Either) const noexcept;

  /// Whether the queue is not intact, and not because somebody with the lock is changing it. Only
  /// while the state is sound.
  bool isDamaged(Use use = Use::Either) const noexcept;

  // Hints, each one plain read of shared memory. Only while the state is sound.
  std::size_t messages() const noexcept;
  bool looksFull() const noexcept { return messages() >= maxMessages_; }
  bool looksLocked() const noexcept;

  /// Fetches the message that would be received next into this processor's cache, when it is not
  /// the only one, and returns how many bytes that were.
  ///
  /// Most of a copy's time goes into fetching bytes that another processor wrote. The library
  /// copies under the lock, where that time would hold the sender up. Nothing is read, so whatever
  /// the object says, nothing can come of it.
  std::size_t fetchNext() noexcept;

  /// The thread that holds the lock, by its id in its own PID namespace; 0 when nobody does.
  pid_t lockOwner() const noexcept;

  /// Whether the lock's owner is certainly dead; see LockOwner.h. False where that cannot be known.
  bool isLockOwnerGone() const noexcept;

 private:
  void look(int file) noexcept;
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
