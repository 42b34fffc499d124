#ifndef KORVEX_RECEIVER_LEFTOVERS_H
#define KORVEX_RECEIVER_LEFTOVERS_H

#include <string>
#include <sys/types.h>
#include <vector>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// A queue under a temporary name: one that is still being made, or that a killed daemon left
/// unfinished.
struct HalfMadeQueue {
  /// What is known of the process that makes it.
  enum class Maker { Dead, Alive, Unknown };

  std::string name;  ///< the temporary one
  pid_t process;     ///< the one that makes it; 0 if it is not known in this PID namespace
  Maker maker;       ///< Unknown where that cannot be told
};

/// All of them, of every user, sorted by name.
KORVEX_RECEIVER_EXPORT std::vector<HalfMadeQueue> halfMadeQueues();

/// Removes the queues that dead daemons of this user left half made in this PID namespace, and
/// returns their names. Call it when a daemon starts.
///
/// A receiver makes its queues under temporary names; if its process is killed meanwhile, nothing
/// else would ever find these objects. What cannot be examined or removed is left alone, and so is
/// everything where the PID namespace is unknown (no /proc).
KORVEX_RECEIVER_EXPORT std::vector<std::string> removeHalfMadeQueues();

/// Removes only this one, under the same conditions. Returns whether it was removed.
KORVEX_RECEIVER_EXPORT bool removeHalfMadeQueue(const std::string& name);

/// Removes a pair of queues that a dead daemon of this user left behind, or whichever of the two
/// remains, and returns the names that were there.
///
/// Works as a receiver with Existing::Replace does: both are claimed before either is removed, so a
/// living daemon, even one that starts meanwhile, keeps its pair whole. Throws std::runtime_error
/// when a living daemon serves them, or when an object under these names cannot have been left by a
/// daemon of this user: another user's queue, a link, a pipe, a file that never was a queue.
/// Nothing is removed then.
KORVEX_RECEIVER_EXPORT std::vector<std::string> removeDeadPair(const std::string& name);

}  // namespace korvex::receiver

#endif
