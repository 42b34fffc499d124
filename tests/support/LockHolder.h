#ifndef TESTS_SUPPORT_LOCK_HOLDER_H
#define TESTS_SUPPORT_LOCK_HOLDER_H

#include <string>
#include <sys/types.h>

#include "support/SharedObject.h"

namespace korvex::test {

/// Whether this process may make PID namespaces.
bool canMakePidNamespace();

/// An id that is free here and low enough to be reached soon in a new namespace.
pid_t freeProcessId();

/// A living process that holds a queue's lock until it is asked to release it. Killed with the
/// object.
class LockHolder {
 public:
  /// In this process's PID namespace.
  explicit LockHolder(const std::string& queue);

  /// In a namespace of its own, where the holder has this id.
  LockHolder(const std::string& queue, pid_t ownId);

  ~LockHolder();
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;

  /// Waits until another process has waited for the lock in vain. False if none did.
  bool awaitOthersTry() const;

  void release();

  /// Dies holding the lock.
  void die();

 private:
  void start(unsigned long namespaceFlags, pid_t ownId);
  [[noreturn]] void holdHere() const;
  [[noreturn]] void holdAs(pid_t ownId) const;
  bool awaitWaiter() const;

  korvex::test::QueueLock lock_;
  int wishes_[2];   ///< to the holder
  int answers_[2];  ///< from it
  pid_t process_ = -1;
};

}  // namespace korvex::test

#endif
