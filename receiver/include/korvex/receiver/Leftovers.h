#ifndef KORVEX_RECEIVER_LEFTOVERS_H
#define KORVEX_RECEIVER_LEFTOVERS_H

#include <string>
#include <sys/types.h>
#include <vector>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// A queue that is being made, under a temporary name, or that was when its daemon was killed.
struct HalfMadeQueue {
  /// What is known of the process that makes it.
  enum class Maker { Dead, Alive, Unknown };

  std::string name;  ///< the temporary one
  pid_t process;     ///< that makes it; 0 unless it can be told in this PID namespace
  Maker maker;       ///< Unknown where that cannot be told
};

/// All of them, of every user, by name.
KORVEX_RECEIVER_EXPORT std::vector<HalfMadeQueue> halfMadeQueues();

/// Removes the queues that dead daemons of this user left half made in this PID namespace, and
/// returns their names. Call it when a daemon starts.
///
/// A receiver makes its queues under temporary names; if its process is killed meanwhile, nothing
/// else would ever find these objects. What cannot be examined or removed is left alone, and so is
/// everything where the PID namespace is unknown (no /proc).
KORVEX_RECEIVER_EXPORT std::vector<std::string> removeHalfMadeQueues();

/// Removes only this one, under the same conditions. Whether it did.
KORVEX_RECEIVER_EXPORT bool removeHalfMadeQueue(const std::string& name);

/// Removes a pair of queues that a dead daemon of this user left, or the one that is left of it,
/// and returns the names that were there.
///
/// Does what a receiver does that replaces its queues: both are claimed before one is removed, so a
/// living daemon, also one that starts meanwhile, keeps its pair whole. Throws std::runtime_error
/// when a living daemon serves them, or when what lies there can be no daemon's of this user:
/// another user's queue, a link, a pipe, a file that never was a queue. Nothing is removed then.
KORVEX_RECEIVER_EXPORT std::vector<std::string> removeDeadPair(const std::string& name);

}  // namespace korvex::receiver

#endif
