#ifndef KORVEXD_DESCENDANTS_H
#define KORVEXD_DESCENDANTS_H

#include <sys/types.h>

#include <set>

namespace korvexd {

/// Makes this process the parent of whatever its descendants leave behind, in place of init.
/// Throws SystemError.
void adoptDescendants();

/// The children of this process, those that have ended and were not waited for too. Throws
/// SystemError when the system does not tell (no /proc).
std::set<pid_t> childrenOfThisProcess();

/// Kills every descendant of this process but these children and their descendants, and returns the
/// children that were killed, for waiting; empty when there is none.
///
/// All are stopped before the first one dies: to the rest of a pipeline, the death of a part would
/// be the end of its input. What is adopted or forked meanwhile is found by calling this again.
/// Throws SystemError when the system does not tell.
std::set<pid_t> killDescendantsExcept(const std::set<pid_t>& spared);

}  // namespace korvexd

#endif
