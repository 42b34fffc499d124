#include "property/LateClock.h"

#include <atomic>
#include <ctime>
#include <limits>

namespace late_clock {
namespace {

// Even the longest timeout, 2^31 - 1 seconds, ends in 1970.
constexpr std::time_t kLate = std::numeric_limits<int>::min();

std::atomic<unsigned> count{0};

}  // namespace

unsigned reads() { return count; }

}  // namespace late_clock

// The program's own definition comes before the C library's.
extern "C" std::time_t time(std::time_t* place) noexcept {
  ++late_clock::count;
  if (place != nullptr) *place = late_clock::kLate;
  return late_clock::kLate;
}
