#ifndef KORVEX_RECEIVER_QUEUES_BUS_ERROR_GUARD_H
#define KORVEX_RECEIVER_QUEUES_BUS_ERROR_GUARD_H

#include <setjmp.h>
#include <stdexcept>

#include "korvex/receiver/BusErrorGuard.h"

namespace korvex::receiver {

/// A queue's memory is gone: it was truncated, or the system has none left.
class MemoryLost : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Where this thread continues after a SIGBUS; null outside of a guarded step.
extern thread_local sigjmp_buf* busErrorRecovery;

[[noreturn]] void throwMemoryLost();

/// Unblocks SIGBUS in this thread if the guard is installed: the system kills a process for a fault
/// that is blocked.
void takeBusErrors() noexcept;

/// The same, but only the first time in each thread: it is a system call.
void takeBusErrorsOnce() noexcept;

/// Runs a step that touches a queue. Turns SIGBUS (the object was truncated, or /dev/shm is full)
/// into MemoryLost, where the guard is installed.
///
/// The jump skips the step's destructors. So a step does no more than one call of the queue layer:
/// what that leaves behind is the queue's lock, on a queue that is lost anyway, and where a queue
/// was being made, its memory. Nothing of the caller's may be held across it.
///
/// Such a step may be part of another one, which is then still guarded.
template <typename Step>
auto surviveBusError(Step step) {
  takeBusErrorsOnce();
  sigjmp_buf place;
  sigjmp_buf* const before = busErrorRecovery;
  if (sigsetjmp(place, 0) != 0) {
    busErrorRecovery = before;
    throwMemoryLost();
  }
  // Leaves the recovery as it was on every ordinary way out.
  const struct Recovery {
    Recovery(sigjmp_buf& to, sigjmp_buf* last) : before(last) { busErrorRecovery = &to; }
    ~Recovery() { busErrorRecovery = before; }
    sigjmp_buf* const before;
  } recovery(place, before);
  return step();
}

}  // namespace korvex::receiver

#endif
