#include "queues/BusErrorGuard.h"

#include <signal.h>

namespace korvex::receiver {
namespace {

void onBusError(int number) {
  if (busErrorRecovery != nullptr) ::siglongjmp(*busErrorRecovery, 1);
  // Nothing of ours: the instruction runs once more and ends the process as ever.
  ::signal(number, SIG_DFL);
}

}  // namespace

thread_local sigjmp_buf* busErrorRecovery = nullptr;

void throwMemoryLost() {
  throw MemoryLost("somebody cut their memory, or the system has none left");
}

void installBusErrorGuard() {
  struct sigaction action = {};
  action.sa_handler = onBusError;
  action.sa_flags = SA_NODEFER;  // the handler is left by a jump, which restores no signal mask
  ::sigaction(SIGBUS, &action, nullptr);
}

}  // namespace korvex::receiver
