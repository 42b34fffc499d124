#ifndef KORVEX_RECEIVER_LEFTOVERS_H
#define KORVEX_RECEIVER_LEFTOVERS_H

#include <string>
#include <vector>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// Removes the queues that dead daemons of this user left half made in this PID namespace, and
/// returns their names. Call it when a daemon starts.
///
/// A receiver makes its queues under temporary names; if its process is killed meanwhile, nothing
/// else would ever find these objects. What cannot be examined or removed is left alone, and so is
/// everything where the PID namespace is unknown (no /proc).
KORVEX_RECEIVER_EXPORT std::vector<std::string> removeHalfMadeQueues();

}  // namespace korvex::receiver

#endif
