#include "queues/BusErrorGuard.h"

#include <signal.h>

namespace korvex::receiver {
namespace {

struct sigaction before = {};  ///< the host's handling of SIGBUS

/// A jump restores no signal mask. Blocked, the next fault would end the process.
void unblock(int number) {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, number);
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void onBusError(int number, siginfo_t* info, void*) {
  const bool isFault = info->si_code > 0;  // not one that a process has sent
  if (isFault && busErrorRecovery != nullptr) {
    unblock(number);
    ::siglongjmp(*busErrorRecovery, 1);
  }
  // Not ours: restore the host's handling. A fault recurs by itself, a sent signal is raised again.
  ::sigaction(number, &before, nullptr);
  if (!isFault) ::raise(number);
}

}  // namespace

thread_local sigjmp_buf* busErrorRecovery = nullptr;

void throwMemoryLost() {
  throw MemoryLost("their memory was truncated, or the system is out of memory");
}

void installBusErrorGuard() {
  struct sigaction action = {};
  action.sa_sigaction = onBusError;
  action.sa_flags = SA_SIGINFO;
  ::sigaction(SIGBUS, &action, &before);
}

bool runGuarded(const std::function<void()>& step) {
  try {
    surviveBusError([&step] { step(); });
    return true;
  } catch (const MemoryLost&) {
    return false;
  }
}

}  // namespace korvex::receiver
