// Preloaded into any program: a signal storm from before main() to the end.

#include <cstdlib>

#include "support/SignalStorm.h"

namespace {

__attribute__((constructor)) void beginStorm() {
  const char* const file = std::getenv(korvex::test::kStormCounterVariable);
  if (file == nullptr) return;
  static auto& counter = *new korvex::test::SharedCounter(file);
  new korvex::test::SignalStorm(counter);  // until the process ends
}

}  // namespace
