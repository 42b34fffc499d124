#ifndef KORVEXD_CHILD_PROCESSES_H
#define KORVEXD_CHILD_PROCESSES_H

#include <sys/types.h>

#include <vector>

namespace korvexd {

/// Makes this process the parent of whatever its descendants leave behind, in place of init.
/// Throws SystemError.
void adoptDescendants();

/// The children of this process, those that have ended and were not waited for too. One that is
/// adopted meanwhile may be missing, so look again. Throws SystemError when the system does not
/// tell (no /proc).
std::vector<pid_t> childrenOfThisProcess();

}  // namespace korvexd

#endif
