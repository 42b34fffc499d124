// Loaded into a program of any kind, it has a signal storm from before main() to its end.

#include <cstdlib>

#include "support/SignalStorm.h"

namespace {

__attribute__((constructor)) void beginStorm() {
  const char* const file = std::getenv(test_support::kStormCounterVariable);
  if (file == nullptr) return;
  static auto& counter = *new test_support::SharedCounter(file);
  new test_support::SignalStorm(counter);  // until the process ends
}

}  // namespace
