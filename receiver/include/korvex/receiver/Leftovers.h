#ifndef KORVEX_RECEIVER_LEFTOVERS_H
#define KORVEX_RECEIVER_LEFTOVERS_H

#include <string>
#include <vector>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// Removes the queues that dead daemons of this user left half made in this PID namespace, and
/// returns their names. For the start of a daemon.
///
/// A receiver makes its queues under temporary names; when its process is killed meanwhile, nobody
/// would ever find these objects again. What cannot be looked at or removed is left alone, and so
/// is everything where the system does not tell the namespace (no /proc).
KORVEX_RECEIVER_EXPORT std::vector<std::string> removeHalfMadeQueues();

}  // namespace korvex::receiver

#endif
