#include "queues/BusErrorGuard.h"

#include <atomic>
#include <mutex>
#include <signal.h>

namespace korvex::receiver {
namespace {

struct sigaction before = {};       ///< the host's handling of SIGBUS
std::atomic<bool> isUsedUp{false};  ///< the host's handler, which is to be called only once
std::atomic<bool> isInstalled{false};

void unblockBusErrors() noexcept {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGBUS);
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

/// Whether there is no handler. One that was installed after the guard may itself call the guard.
bool isLeftToTheSystem(const struct sigaction& action) {
  return action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN;
}

/// Calls the host's handler as the system would have done.
void callHostsHandler(int number, siginfo_t* info, void* context) {
  const auto flags = static_cast<unsigned>(before.sa_flags);
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
  const bool isOnlyOnce = (static_cast<unsigned>(before.sa_flags) & SA_RESETHAND) != 0;
  if (!isLeftToTheSystem(before) && !(isOnlyOnce && isUsedUp.exchange(true))) {
    return callHostsHandler(number, info, context);
  }
  if (!isFault && before.sa_handler == SIG_IGN) return;
  ::signal(number, SIG_DFL);
  if (!isFault) ::raise(number);
}

/// Whether the thread itself touched what cannot be touched. Otherwise a process sent the signal,
/// or the system reports memory that failed but that nobody has touched yet.
bool isFaultOfThread(const siginfo_t& info) {
  return info.si_code > 0 && info.si_code != BUS_MCEERR_AO;
}

/// The host's handler needs the stack that it was written for, and its calls restarted or not.
int flagsFor(const struct sigaction& hosts) {
  constexpr int kTakenOver = SA_ONSTACK | SA_RESTART;
  return SA_SIGINFO | (isLeftToTheSystem(hosts) ? kTakenOver : hosts.sa_flags & kTakenOver);
}

void onBusError(int number, siginfo_t* info, void* context) {
  const bool isFault = isFaultOfThread(*info);
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
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  struct sigaction present = {};
  ::sigaction(SIGBUS, nullptr, &present);
  if (isInstalled && !isLeftToTheSystem(present)) return;
  before = present;  // known before the handler can run
  isUsedUp = false;
  struct sigaction action = {};
  action.sa_sigaction = onBusError;
  action.sa_flags = flagsFor(present);
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
