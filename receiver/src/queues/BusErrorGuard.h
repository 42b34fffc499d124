#ifndef KORVEX_RECEIVER_SURVIVE_BUS_ERROR_H
#define KORVEX_RECEIVER_SURVIVE_BUS_ERROR_H

#include <setjmp.h>

#include <stdexcept>

#include "korvex/receiver/BusErrorGuard.h"

namespace korvex::receiver {

/// The memory of a queue ended before the queue did.
class MemoryLost : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Where this thread goes on after a SIGBUS; null outside of a guarded step.
extern thread_local sigjmp_buf* busErrorRecovery;

[[noreturn]] void throwMemoryLost();

/// Runs a step that touches a queue. Turns SIGBUS (the object was truncated, or /dev/shm is full)
/// into MemoryLost, where the guard is installed.
///
/// The step is left where it was, without its destructors. That is right here because a queue's
/// memory is touched by nothing but plain reads, writes and copies of the queue library; what it
/// leaves behind is the queue's lock, and the queue is lost anyway. So a step holds nothing else.
template <typename Step>
auto surviveBusError(Step step) {
  sigjmp_buf place;
  if (sigsetjmp(place, 0) != 0) {
    busErrorRecovery = nullptr;
    throwMemoryLost();
  }
  // Takes the recovery back on every ordinary way out.
  const struct Recovery {
    explicit Recovery(sigjmp_buf& to) { busErrorRecovery = &to; }
    ~Recovery() { busErrorRecovery = nullptr; }
  } recovery(place);
  return step();
}

}  // namespace korvex::receiver

#endif
