#ifndef KORVEX_RECEIVER_QUEUE_STATUS_H
#define KORVEX_RECEIVER_QUEUE_STATUS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>

#include "korvex/receiver/Export.h"
#include "korvex/receiver/Limits.h"

namespace korvex::receiver {

/// What can be seen of one queue in shared memory without taking its lock.
///
/// The constructor examines whatever has the name, in a way that cannot hang or crash: it may be
/// missing, another user's, half-made, truncated or not a queue at all. The object stays in view
/// even if its name is removed. The live numbers are plain reads of shared memory: hints, possibly
/// stale. Good for deciding when to try something and for showing to people, never proof that
/// something happened.
///
/// If the object is truncated while it is in view, its live numbers are 0 where the guard of
/// BusErrorGuard.h is installed; without the guard, reading them raises SIGBUS. Used by one thread
/// at a time. Nothing here throws but std::bad_alloc.
class KORVEX_RECEIVER_EXPORT QueueStatus {
 public:
  /// What the constructor found.
  enum class Condition {
    Unreachable,  ///< missing, forbidden, or an invalid name; systemError() says which
    Unfinished,   ///< looks like a queue that its creator is still making
    Damaged,      ///< nothing that could be used as a queue
    Busy,         ///< looks damaged, but its lock is taken: a peer may be changing it
    Sound         ///< can be used
  };

  /// `name` without a leading slash.
  explicit QueueStatus(const std::string& name);
  ~QueueStatus();

  /// @{
  /// The one that is moved from may only be destroyed or assigned to.
  QueueStatus(QueueStatus&&) noexcept;
  QueueStatus& operator=(QueueStatus&&) noexcept;
  /// @}

  /// As the constructor found it; it does not change.
  Condition condition() const noexcept;

  /// The errno that made the queue unreachable, else 0.
  int systemError() const noexcept;

  /// What the file system says of it. All 0 when there is nothing, or nothing can be seen.
  struct Object {
    dev_t device;  ///< with the inode, what a file lock names
    ino_t inode;   ///< unique on the device while the object exists
    uid_t user;    ///< its owner
    gid_t group;   ///< its group
    mode_t mode;   ///< with the bits of its type
    off_t size;    ///< in bytes
  };

  /// What lay under the name at the first look, even when it cannot be opened; a symbolic link is
  /// not followed.
  const Object& object() const noexcept;

  /// 0 unless sound.
  Limits limits() const noexcept;

  /// Whether the name still refers to the object in view, uncut. False once its daemon removed or
  /// replaced it, or it was truncated: nobody reads what is sent to it then.
  bool isStillNamed() const noexcept;

  // The rest is for sound queues only.

  /// Messages that wait to be received.
  std::size_t messages() const noexcept;

  /// The bytes of these messages together.
  std::uint64_t waitingBytes() const noexcept;

  /// @{
  /// Whether a send would have to wait, as far as can be seen.
  bool looksFull() const noexcept { return messages() >= limits().messages; }
  bool looksLocked() const noexcept;
  /// @}

  /// The thread that holds the lock, by its id in its own PID namespace; 0 for none.
  pid_t lockOwner() const noexcept;

  /// Whether the lock's owner is certainly dead. False where that cannot be known: outside the
  /// initial PID namespace, or where /proc hides processes.
  bool isLockOwnerGone() const noexcept;

 private:
  struct View;

  std::unique_ptr<View> view_;
};

}  // namespace korvex::receiver

#endif
