// Comes before the system's functions in a program that is to find no more threads.

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <pthread.h>

/// In place of the system's function: starts as many threads as KORVEX_TEST_THREADS says.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*task)(void*), void* argument) {
  static std::atomic<int> left{std::atoi(std::getenv("KORVEX_TEST_THREADS"))};
  if (left-- <= 0) return EAGAIN;
  using Call = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static auto* const call = reinterpret_cast<Call*>(::dlsym(RTLD_NEXT, "pthread_create"));
  return call(thread, attributes, task, argument);
}
