#ifndef KORVEX_SUPPORT_AUTO_LOCK_H
#define KORVEX_SUPPORT_AUTO_LOCK_H

#include <pthread.h>

/// Holds a POSIX mutex for a scope. The mutex must outlive it.
///
/// The results of locking and unlocking are ignored: on a valid mutex of the default kind neither
/// can fail, and a destructor could not report it.
class AutoLock {
 public:
  explicit AutoLock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~AutoLock() { pthread_mutex_unlock(mutex_); }
  AutoLock(const AutoLock&) = delete;
  AutoLock& operator=(const AutoLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

#endif
