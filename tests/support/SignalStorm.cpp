#include "support/SignalStorm.h"

#include <cerrno>
#include <system_error>

namespace korvex::test {
namespace {

constexpr int kSignal = SIGUSR2;   // the programs have a use for the other one
constexpr long kPeriod = 1000000;  // nanoseconds

SharedCounter* counter = nullptr;

extern "C" void countSignal(int) { counter->raise(); }

}  // namespace

SignalStorm::SignalStorm(SharedCounter& arrived, CutCall cutCall) : timer_() {
  counter = &arrived;
  struct sigaction action = {};
  action.sa_handler = countSignal;
  if (cutCall == CutCall::StartsAgain) action.sa_flags = SA_RESTART;
  ::sigaction(kSignal, &action, nullptr);
  sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = kSignal;
  const itimerspec rhythm = {{0, kPeriod}, {0, kPeriod}};
  if (::timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0 ||
      ::timer_settime(timer_, 0, &rhythm, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "timer");
  }
}

SignalStorm::~SignalStorm() {
  ::timer_delete(timer_);
  // One may still be on its way.
  ::signal(kSignal, SIG_IGN);
}

}  // namespace korvex::test
