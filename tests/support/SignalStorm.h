#ifndef TESTS_SUPPORT_SIGNAL_STORM_H
#define TESTS_SUPPORT_SIGNAL_STORM_H

#include <signal.h>
#include <time.h>

#include "support/SharedCounter.h"

namespace korvex::test {

/// Names the file in which a preloaded storm counts its signals.
constexpr const char* kStormCounterVariable = "KORVEX_TEST_STORM_COUNTER";

/// What happens to a system call that a signal of a storm interrupts.
enum class CutCall { Fails, StartsAgain };

/// Sends this process a thousand signals a second. One storm at a time.
class SignalStorm {
 public:
  /// Counts the signals that arrived. The counter outlives the storm.
  explicit SignalStorm(SharedCounter& arrived, CutCall cutCall = CutCall::Fails);
  ~SignalStorm();
  SignalStorm(const SignalStorm&) = delete;
  SignalStorm& operator=(const SignalStorm&) = delete;

 private:
  timer_t timer_;
};

}  // namespace korvex::test

#endif
