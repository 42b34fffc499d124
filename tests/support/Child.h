#ifndef TESTS_SUPPORT_CHILD_H
#define TESTS_SUPPORT_CHILD_H

#include <functional>
#include <string>
#include <sys/types.h>

namespace korvex::test {

/// A user that owns nothing.
constexpr uid_t kNobody = 65534;

/// Whether this process may create things of other users, and become one.
bool isRoot();

/// The user that a test without privileges runs as.
uid_t unprivilegedUser();

/// Becomes that user for good. Does nothing unless root.
void dropPrivileges();

/// Runs a task that may crash or hang in a child process. Returns its result, "killed by signal N",
/// or "hangs".
std::string resultOfChild(const std::function<std::string()>& task);

}  // namespace korvex::test

#endif
