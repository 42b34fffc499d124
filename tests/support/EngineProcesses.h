#ifndef TESTS_SUPPORT_ENGINE_PROCESSES_H
#define TESTS_SUPPORT_ENGINE_PROCESSES_H

#include <string>
#include <sys/types.h>
#include <vector>

namespace korvex::test {

/// The living processes that a daemon has started for streams of this queue: its keepers and all
/// their descendants, even if the parents are gone.
std::vector<pid_t> processesFor(const std::string& queue);

/// The keepers among them.
std::vector<pid_t> keepersFor(const std::string& queue);

/// The children of a process, zombies too.
std::vector<pid_t> childrenOf(pid_t parent);

/// How many descriptors a process has open.
std::size_t descriptorsOf(pid_t process);

}  // namespace korvex::test

#endif
