#ifndef TESTS_SUPPORT_NAMESPACES_H
#define TESTS_SUPPORT_NAMESPACES_H

#include <string>
#include <sys/stat.h>
#include <vector>

#include "support/Child.h"
#include "support/Process.h"

namespace korvex::test {

/// The inode of the PID namespace that every thread of the system has an id in.
constexpr ino_t kInitialPidNamespace = 0xEFFFFFFC;

/// Whether this process sees every thread of the system. Otherwise it cannot know that a lock's
/// owner is dead.
inline bool seesEveryThread() {
  struct stat found = {};
  return ::stat("/proc/self/ns/pid", &found) == 0 && found.st_ino == kInitialPidNamespace;
}

/// A command to run with mounts of its own, which nobody else sees.
inline std::vector<std::string> withOwnMounts(std::vector<std::string> command) {
  command.insert(command.begin(), {"/usr/bin/unshare", isRoot() ? "-m" : "-Urm"});
  return command;
}

inline bool canMount() {
  return Process(withOwnMounts({"/bin/sh", "-c", "mount -t tmpfs none /mnt"})).wait() == 0;
}

}  // namespace korvex::test

#endif
