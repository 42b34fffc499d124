#include "support/LockHolder.h"

#include <cerrno>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/Await.h"
#include "support/Child.h"

namespace korvex::test {
namespace {

constexpr pid_t kFirstUsableId = 2;  // a namespace's first process is its init
constexpr pid_t kMostIds = 32768;

// Values of the lock's futex word: taken, and taken with a waiter.
constexpr int kTaken = 1;
constexpr int kTakenAndWaitedFor = 2;

unsigned long newNamespace() { return isRoot() ? CLONE_NEWPID : CLONE_NEWPID | CLONE_NEWUSER; }

/// As fork(), with namespaces. The child must fork once more before it uses threads or locks: the
/// C library does not learn its id.
pid_t forkInto(unsigned long namespaceFlags) {
#ifdef __s390x__  // the stack comes first there
  return static_cast<pid_t>(::syscall(SYS_clone, 0, namespaceFlags | SIGCHLD, 0, 0, 0));
#else
  return static_cast<pid_t>(::syscall(SYS_clone, namespaceFlags | SIGCHLD, 0, 0, 0, 0));
#endif
}

/// Makes the system assign this id next; where that is not allowed, getting there takes more forks.
void skipIdsBefore(pid_t id) {
  const std::string text = std::to_string(id - 1);
  const int file = ::open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC);
  if (file < 0) return;
  if (::write(file, text.data(), text.size()) < 0) errno = 0;
  ::close(file);
}

void expectByte(int pipe, const char* what) {
  char byte = 0;
  if (::read(pipe, &byte, 1) != 1) throw std::runtime_error(what);
}

}  // namespace

bool canMakePidNamespace() {
  const pid_t child = forkInto(newNamespace());
  if (child == 0) ::_exit(0);
  return child > 0 && ::waitpid(child, nullptr, 0) == child;
}

pid_t freeProcessId() {
  for (pid_t id = kFirstUsableId; id < kMostIds; ++id) {
    if (::kill(id, 0) != 0 && errno == ESRCH) return id;
  }
  throw std::runtime_error("every process id is in use");
}

LockHolder::LockHolder(const std::string& queue) : lock_(queue) { start(0, 0); }

LockHolder::LockHolder(const std::string& queue, pid_t ownId) : lock_(queue) {
  start(newNamespace(), ownId);
}

void LockHolder::start(unsigned long namespaceFlags, pid_t ownId) {
  if (::pipe2(wishes_, O_CLOEXEC) != 0 || ::pipe2(answers_, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  process_ = namespaceFlags == 0 ? ::fork() : forkInto(namespaceFlags);
  if (process_ < 0) throw std::runtime_error("cannot fork");
  if (process_ == 0 && namespaceFlags != 0) holdAs(ownId);
  if (process_ == 0) holdHere();
  ::close(answers_[1]);
  ::close(wishes_[0]);
  expectByte(answers_[0], "nobody took the lock");
}

void LockHolder::holdHere() const {
  char wish = 0;
  ::pthread_mutex_lock(lock_.mutex());
  if (::write(answers_[1], "l", 1) == 1 && ::read(wishes_[0], &wish, 1) == 1) {
    ::pthread_mutex_unlock(lock_.mutex());
  }
  ::_exit(::write(answers_[1], "u", 1) == 1 ? 0 : 1);
}

/// Forks until a process has the id.
void LockHolder::holdAs(pid_t ownId) const {
  skipIdsBefore(ownId);
  for (;;) {
    const pid_t child = ::fork();
    if (child == 0 && ::getpid() == ownId) holdHere();
    if (child <= 0 || child > ownId) ::_exit(0);
    ::waitpid(child, nullptr, 0);
  }
}

LockHolder::~LockHolder() {
  die();
  ::close(answers_[0]);
  ::close(wishes_[1]);
}

bool LockHolder::awaitWaiter() const {
  auto* const word = reinterpret_cast<int*>(lock_.mutex());
  return eventually([word] {
    int expected = kTakenAndWaitedFor;
    return __atomic_compare_exchange_n(word, &expected, kTaken, false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_SEQ_CST);
  });
}

/// By the time the second wait begins, the first one has ended.
bool LockHolder::awaitOthersTry() const { return awaitWaiter() && awaitWaiter(); }

void LockHolder::release() {
  if (::write(wishes_[1], "r", 1) != 1) throw std::runtime_error("the holder is gone");
  expectByte(answers_[0], "the holder kept the lock");
}

void LockHolder::die() {
  if (process_ < 0) return;
  ::kill(process_, SIGKILL);  // the first of its namespace takes the others with it
  ::waitpid(process_, nullptr, 0);
  process_ = -1;
}

}  // namespace korvex::test
