#include "korvex/receiver/Counters.h"

namespace korvexd {
namespace {

constexpr const char* kNames[] = {"streams_opened",
                                  "streams_complete",
                                  "streams_incomplete",
                                  "records",
                                  "dropped_records",
                                  "bytes",
                                  "batches",
                                  "bad_batches",
                                  "replies_sent",
                                  "replies_pending",
                                  "replies_withdrawn",
                                  "replies_lost",
                                  "queue_replacements",
                                  "capture_failures"};
static_assert(sizeof kNames / sizeof *kNames == kCounts, "one name for each count");

constexpr std::size_t indexOf(Count count) { return static_cast<std::size_t>(count); }

}  // namespace

const char* nameOf(Count count) noexcept { return kNames[indexOf(count)]; }

void Stats::add(Count count, std::uint64_t number) noexcept {
  // Only this queue's thread writes, so the sum needs no locked instruction.
  set(count, get(count) + number);
}

void Stats::set(Count count, std::uint64_t number) noexcept {
  counts_[indexOf(count)].store(number, std::memory_order_relaxed);
}

std::uint64_t Stats::get(Count count) const noexcept {
  return counts_[indexOf(count)].load(std::memory_order_relaxed);
}

}  // namespace korvexd
