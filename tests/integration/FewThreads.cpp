// Comes before the system's functions in a program that is to find no more threads or processes.

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dlfcn.h>
#include <pthread.h>
#include <spawn.h>
#include <unistd.h>

namespace {

template <typename Function>
Function* systems(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

int threadsToStart() {
  const char* const number = std::getenv("KORVEX_TEST_THREADS");
  return number == nullptr ? INT_MAX : std::atoi(number);
}

/// While there is a file under the name that the variable gives. A test can make and remove it,
/// and has a variable for each function: who forks has been spawned, and gets the same ones.
bool isRefused(const char* variable) {
  const char* const file = std::getenv(variable);
  return file != nullptr && ::access(file, F_OK) == 0;
}

using Spawn = int(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
                  char* const*, char* const*);

}  // namespace

extern "C" {

/// In place of the system's function: starts as many threads as KORVEX_TEST_THREADS says.
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*task)(void*),
                   void* argument) {
  static std::atomic<int> left{threadsToStart()};
  if (left-- <= 0) return EAGAIN;
  using Call = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static auto* const call = systems<Call>("pthread_create");
  return call(thread, attributes, task, argument);
}

pid_t fork() noexcept {
  static auto* const call = systems<pid_t()>("fork");
  if (!isRefused("KORVEX_TEST_NO_FORK")) return call();
  errno = EAGAIN;
  return -1;
}

int posix_spawn(pid_t* process, const char* program, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const* words, char* const* variables) {
  static auto* const call = systems<Spawn>("posix_spawn");
  if (isRefused("KORVEX_TEST_NO_SPAWN")) return EAGAIN;
  return call(process, program, actions, attributes, words, variables);
}

int posix_spawnp(pid_t* process, const char* program, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const* words, char* const* variables) {
  static auto* const call = systems<Spawn>("posix_spawnp");
  if (isRefused("KORVEX_TEST_NO_SPAWN")) return EAGAIN;
  return call(process, program, actions, attributes, words, variables);
}
}
