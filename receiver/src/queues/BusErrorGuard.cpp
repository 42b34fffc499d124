#include "queues/BusErrorGuard.h"

#include <setjmp.h>
#include <signal.h>

namespace korvex::receiver {
namespace {

/// Where the thread goes on when its memory is gone; none outside of a step.
thread_local sigjmp_buf* recovery = nullptr;

void onBusError(int number) {
  if (recovery != nullptr) ::siglongjmp(*recovery, 1);
  // Nothing of ours: the instruction runs once more and ends the process as ever.
  ::signal(number, SIG_DFL);
}

/// Takes the recovery back on every ordinary way out.
class Recovery {
 public:
  explicit Recovery(sigjmp_buf& place) : outer_(recovery) { recovery = &place; }
  ~Recovery() { recovery = outer_; }
  Recovery(const Recovery&) = delete;
  Recovery& operator=(const Recovery&) = delete;

 private:
  sigjmp_buf* outer_;
};

}  // namespace

void installBusErrorGuard() {
  struct sigaction action = {};
  action.sa_handler = onBusError;
  action.sa_flags = SA_NODEFER;  // the handler is left by a jump, which restores no signal mask
  ::sigaction(SIGBUS, &action, nullptr);
}

void surviveCut(const std::function<void()>& step) {
  sigjmp_buf* const outer = recovery;
  sigjmp_buf place;
  if (sigsetjmp(place, 0) != 0) {
    recovery = outer;
    throw QueueCut("somebody cut their memory, or the system has none left");
  }
  const Recovery guard(place);
  step();
}

}  // namespace korvex::receiver
