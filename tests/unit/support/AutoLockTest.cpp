#include <gtest/gtest.h>
#include <memory>
#include <type_traits>

#include "support/AutoLock.h"

namespace {

/// A mutex that answers a wrong lock or unlock with an error instead of undefined behaviour.
class CheckedMutex {
 public:
  CheckedMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
  ~CheckedMutex() { pthread_mutex_destroy(&mutex_); }
  CheckedMutex(const CheckedMutex&) = delete;
  CheckedMutex& operator=(const CheckedMutex&) = delete;

  pthread_mutex_t* get() { return &mutex_; }

  bool isFree() {
    if (pthread_mutex_trylock(&mutex_) != 0) return false;
    pthread_mutex_unlock(&mutex_);
    return true;
  }

 private:
  pthread_mutex_t mutex_;
};

}  // namespace

TEST(AutoLockScope, HoldsTheMutexFromConstructionToDestruction) {
  CheckedMutex mutex;
  {
    const AutoLock lock(mutex.get());
    EXPECT_FALSE(mutex.isFree());
  }
  EXPECT_TRUE(mutex.isFree());
}

TEST(AutoLockScope, ReleasesTheMutexWhenAnExceptionLeavesIt) {
  CheckedMutex mutex;
  try {
    const AutoLock lock(mutex.get());
    throw 1;
  } catch (int) {
  }
  EXPECT_TRUE(mutex.isFree());
}

TEST(AutoLockScope, CannotBeCopied) {
  static_assert(!std::is_copy_constructible<AutoLock>::value, "would unlock twice");
  static_assert(!std::is_copy_assignable<AutoLock>::value, "would forget a mutex");
  static_assert(sizeof(AutoLock) == sizeof(pthread_mutex_t*), "holds one pointer");
}

#ifndef KORVEX_THREAD_SANITIZER  // which takes the errors that are made here on purpose for bugs
TEST(AutoLockScope, LooksAtNeitherResult) {
  CheckedMutex mutex;
  auto outer = std::make_unique<AutoLock>(mutex.get());
  auto refused = std::make_unique<AutoLock>(mutex.get());
  refused.reset();
  EXPECT_TRUE(mutex.isFree()) << "the refused lock unlocks all the same";
  outer.reset();
  EXPECT_TRUE(mutex.isFree());
}
#endif
