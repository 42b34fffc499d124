#ifndef KORVEXD_DESCENDANTS_H
#define KORVEXD_DESCENDANTS_H

#include <set>
#include <sys/types.h>

namespace korvexd {

/// Makes this process the subreaper: orphaned descendants are reparented to it instead of init.
/// Throws SystemError.
void adoptDescendants();

/// The children of this process, including zombies. Throws SystemError when they cannot be
/// determined (no /proc).
std::set<pid_t> childrenOfThisProcess();

/// Kills every descendant of this process but these children and their descendants, and returns the
/// children that were killed, for waiting; empty when there is none.
///
/// All are stopped before the first one dies: to the rest of a pipeline, the death of one part
/// would look like the end of its input. Processes adopted or forked meanwhile are found by calling
/// this again. Throws SystemError when the processes cannot be determined.
std::set<pid_t> killDescendantsExcept(const std::set<pid_t>& spared);

}  // namespace korvexd

#endif
