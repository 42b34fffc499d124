#ifndef KORVEX_RECEIVER_QUEUE_STATUS_H
#define KORVEX_RECEIVER_QUEUE_STATUS_H

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>

#include "korvex/receiver/Export.h"
#include "korvex/receiver/Limits.h"

namespace korvex::receiver {

/// What can be seen of one queue in shared memory without taking its lock.
///
/// The constructor looks at whatever lies under the name, in the way that cannot hang or crash: it
/// may be absent, somebody else's, half made, cut short or no queue at all. The object that it
/// found stays in view, even when its name is taken away. The numbers that follow the queue's life
/// are plain reads of shared memory: hints, possibly old when they arrive. Good for deciding when
/// to try something and for showing to people, never a reason to believe that something happened.
///
/// While an object is cut short under a living view, reading it raises SIGBUS; see BusErrorGuard.h.
/// Used by one thread at a time. Nothing here throws but std::bad_alloc.
class KORVEX_RECEIVER_EXPORT QueueStatus {
 public:
  enum class Condition {
    Unreachable,  ///< absent, forbidden, or no name of a queue; systemError() says which
    Unfinished,   ///< looks like a queue that its creator is still making
    Damaged,      ///< nothing that could be used as a queue
    Busy,         ///< looks damaged, but its lock is taken: somebody may just be changing it
    Sound
  };

  /// `name` without a leading slash.
  explicit QueueStatus(const std::string& name);
  ~QueueStatus();
  QueueStatus(QueueStatus&&) noexcept;
  QueueStatus& operator=(QueueStatus&&) noexcept;

  Condition condition() const noexcept;

  /// The errno that made the queue unreachable, else 0.
  int systemError() const noexcept;

  /// 0 unless sound.
  Limits limits() const noexcept;

  /// Whether the name still leads to the object in view. False once its daemon removed or replaced
  /// it: what is sent to it then is read by nobody.
  bool isStillNamed() const noexcept;

  // The rest is for sound queues only.

  /// Messages that wait to be received.
  std::size_t messages() const noexcept;

  bool looksFull() const noexcept { return messages() >= limits().messages; }

  bool looksLocked() const noexcept;

  /// The thread that holds the lock, as its own PID namespace numbers it; 0 for none.
  pid_t lockOwner() const noexcept;

 private:
  struct View;

  std::unique_ptr<View> view_;
};

}  // namespace korvex::receiver

#endif
