#ifndef TESTS_SUPPORT_NAMESPACES_H
#define TESTS_SUPPORT_NAMESPACES_H

#include <sys/stat.h>

namespace korvex::test {

/// The inode of the PID namespace that every thread of the system has an id in.
constexpr ino_t kInitialPidNamespace = 0xEFFFFFFC;

/// Whether this process sees every thread of the system. Otherwise it cannot know that a lock's
/// owner is dead.
inline bool seesEveryThread() {
  struct stat found = {};
  return ::stat("/proc/self/ns/pid", &found) == 0 && found.st_ino == kInitialPidNamespace;
}

}  // namespace korvex::test

#endif
