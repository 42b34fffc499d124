#include "korvex/receiver/Counters.h"

namespace korvex::receiver {
namespace {

constexpr std::size_t indexOf(Count count) { return static_cast<std::size_t>(count); }

}  // namespace

void Counters::add(Count count, std::uint64_t number) noexcept {
  // Only the receiver's thread writes, so the sum needs no locked instruction.
  set(count, get(count) + number);
}

void Counters::set(Count count, std::uint64_t number) noexcept {
  counts_[indexOf(count)].store(number, std::memory_order_relaxed);
}

std::uint64_t Counters::get(Count count) const noexcept {
  return counts_[indexOf(count)].load(std::memory_order_relaxed);
}

}  // namespace korvex::receiver
