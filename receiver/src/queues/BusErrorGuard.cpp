#include "queues/BusErrorGuard.h"

#include <atomic>
#include <signal.h>

namespace korvex::receiver {
namespace {

struct sigaction before = {};  ///< the host's handling of SIGBUS
std::atomic<bool> isInstalled{false};

void unblockBusErrors() noexcept {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGBUS);
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

/// Calls the host's handler as the system would have done.
void callHostsHandler(int number, siginfo_t* info, void* context) {
  const auto flags = static_cast<unsigned>(before.sa_flags);
  if ((flags & SA_RESETHAND) != 0) ::signal(number, SIG_DFL);
  ::pthread_sigmask(SIG_BLOCK, &before.sa_mask, nullptr);
  if ((flags & SA_NODEFER) != 0) unblockBusErrors();
  if ((flags & SA_SIGINFO) != 0) {
    before.sa_sigaction(number, info, context);
  } else {
    before.sa_handler(number);
  }
}

/// A fault recurs by itself where the default is restored; the system ignores no fault.
void handleAsBefore(int number, siginfo_t* info, void* context, bool isFault) {
  const bool wasIgnored = before.sa_handler == SIG_IGN;
  if (before.sa_handler != SIG_DFL && !wasIgnored) return callHostsHandler(number, info, context);
  if (!isFault && wasIgnored) return;
  ::signal(number, SIG_DFL);
  if (!isFault) ::raise(number);
}

/// Whether there is no handler. One that was installed after the guard may itself call the guard.
bool isLeftToTheSystem(const struct sigaction& action) {
  return action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN;
}

void onBusError(int number, siginfo_t* info, void* context) {
  const bool isFault = info->si_code > 0;  // not one that a process has sent
  if (!isFault || busErrorRecovery == nullptr) {
    return handleAsBefore(number, info, context, isFault);
  }
  unblockBusErrors();  // a jump restores no signal mask
  ::siglongjmp(*busErrorRecovery, 1);
}

}  // namespace

thread_local sigjmp_buf* busErrorRecovery = nullptr;

void takeBusErrors() noexcept {
  if (isInstalled) unblockBusErrors();
}

void takeBusErrorsOnce() noexcept {
  thread_local bool takesThem = false;
  if (takesThem || !isInstalled) return;
  unblockBusErrors();
  takesThem = true;
}

void throwMemoryLost() {
  throw MemoryLost("their memory was truncated, or the system is out of memory");
}

void installBusErrorGuard() {
  struct sigaction present = {};
  ::sigaction(SIGBUS, nullptr, &present);
  if (isInstalled && !isLeftToTheSystem(present)) return;
  before = present;  // known before the handler can run
  struct sigaction action = {};
  action.sa_sigaction = onBusError;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
  ::sigaction(SIGBUS, &action, nullptr);
  isInstalled = true;
}

bool runGuarded(const std::function<void()>& step) {
  takeBusErrors();
  try {
    surviveBusError([&step] { step(); });
    return true;
  } catch (const MemoryLost&) {
    return false;
  }
}

}  // namespace korvex::receiver
