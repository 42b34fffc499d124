#ifndef KORVEX_RECEIVER_QUEUE_SURVEY_H
#define KORVEX_RECEIVER_QUEUE_SURVEY_H

#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "korvex/receiver/Export.h"
#include "korvex/receiver/QueueStatus.h"

namespace korvex::receiver {

/// The names of the pairs of queues in shared memory, sorted: NAME for NAME and NAMEResponse.
///
/// A pair is listed if both names exist, unless neither leads to a queue, or if only one exists and
/// leads to a sound queue. Takes no lock. QueueStatus has the details of each queue.
KORVEX_RECEIVER_EXPORT std::vector<std::string> pairNames();

/// Which processes serve queues, according to one look at the system's table of file locks.
///
/// A receiver claims its queues by such a lock, and the system frees it when the process ends. The
/// look takes no lock itself, so it delays no peer.
class KORVEX_RECEIVER_EXPORT ServingProcesses {
 public:
  ServingProcesses();

  /// The process that serves the queue; 0 when none does. Nothing when that cannot be known: in a
  /// PID namespace other than the initial one the system hides locks of processes outside.
  std::optional<pid_t> of(const QueueStatus::Object& queue) const noexcept;

 private:
  bool isWhole_ = false;  ///< no lock of this machine is missing
  std::map<std::pair<dev_t, ino_t>, pid_t> claims_;
};

}  // namespace korvex::receiver

#endif
