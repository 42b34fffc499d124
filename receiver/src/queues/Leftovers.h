#ifndef KORVEXD_TEMPORARY_NAME_H
#define KORVEXD_TEMPORARY_NAME_H

#include <string>
#include <vector>

namespace korvexd {

// A queue is made under a name of its own before it gets the one that producers look for. A daemon
// that is killed in between leaves an object that nobody would ever find again.

/// A name for a queue that is being made: ".korvexd-PID-NAMESPACE-RANDOM-RANDOM". The process id
/// alone would not do: daemons in containers share the folder and their small ids.
std::string temporaryQueueName();

/// Removes the queues that dead daemons of this user left half made in this namespace of process
/// ids, and returns their names. What cannot be looked at or removed is left alone, and everything
/// where the system does not tell the namespace (no /proc).
std::vector<std::string> removeHalfMadeQueues();

}  // namespace korvexd

#endif
