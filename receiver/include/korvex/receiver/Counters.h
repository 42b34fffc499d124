#ifndef KORVEXD_STATS_H
#define KORVEXD_STATS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace korvexd {

/// What is counted, per queue. The order is that of the names in Stats.cpp.
enum class Count : std::size_t {
  StreamsOpened,
  StreamsComplete,
  StreamsIncomplete,
  Records,         ///< of sound batches
  DroppedRecords,  ///< of these, the ones outside of a stream or in a failed one
  Bytes,           ///< handed to a sink
  Batches,         ///< messages received, bad ones too
  BadBatches,
  RepliesSent,
  RepliesPending,    ///< waiting for room on the response queue right now
  RepliesWithdrawn,  ///< meant for an earlier producer and taken back
  RepliesLost,       ///< more than could wait
  QueueReplacements,
  CaptureFailures
};

constexpr std::size_t kCounts = static_cast<std::size_t>(Count::CaptureFailures) + 1;

/// The name of a count in the statistics file.
const char* nameOf(Count count) noexcept;

/// The counts of one queue. One thread counts, any may read.
class Stats {
 public:
  void add(Count count, std::uint64_t number = 1) noexcept;
  void set(Count count, std::uint64_t number) noexcept;
  std::uint64_t get(Count count) const noexcept;

 private:
  std::array<std::atomic<std::uint64_t>, kCounts> counts_ = {};
};

}  // namespace korvexd

#endif
