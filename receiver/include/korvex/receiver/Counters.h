#ifndef KORVEX_RECEIVER_COUNTERS_H
#define KORVEX_RECEIVER_COUNTERS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// What a receiver counts from its start.
enum class Count : std::size_t {
  StreamsOpened,
  StreamsComplete,
  StreamsIncomplete,
  Records,         ///< of sound batches
  DroppedRecords,  ///< of these, the ones outside of a stream or in a failed one
  Bytes,           ///< passed to a sink
  Batches,         ///< messages received, including bad ones
  BadBatches,
  RepliesSent,
  RepliesPending,    ///< waiting for room on the response queue right now
  RepliesWithdrawn,  ///< meant for an earlier producer and taken back
  RepliesLost,       ///< dropped, because too many were waiting
  QueueReplacements
};

/// A count and its name in statistics.
struct CountName {
  Count count;       ///< what is counted
  const char* name;  ///< in lower case, with underscores
};

/// Every count, in the order of their declaration.
constexpr CountName kCountNames[] = {{Count::StreamsOpened, "streams_opened"},
                                     {Count::StreamsComplete, "streams_complete"},
                                     {Count::StreamsIncomplete, "streams_incomplete"},
                                     {Count::Records, "records"},
                                     {Count::DroppedRecords, "dropped_records"},
                                     {Count::Bytes, "bytes"},
                                     {Count::Batches, "batches"},
                                     {Count::BadBatches, "bad_batches"},
                                     {Count::RepliesSent, "replies_sent"},
                                     {Count::RepliesPending, "replies_pending"},
                                     {Count::RepliesWithdrawn, "replies_withdrawn"},
                                     {Count::RepliesLost, "replies_lost"},
                                     {Count::QueueReplacements, "queue_replacements"}};

/// How many there are.
constexpr std::size_t kCounts = sizeof kCountNames / sizeof *kCountNames;
static_assert(kCounts == static_cast<std::size_t>(Count::QueueReplacements) + 1,
              "one name for each count");

/// The counts of one receiver. One thread counts, any may read. Each number is right, but numbers
/// read one after the other may be from different moments.
class KORVEX_RECEIVER_EXPORT Counters {
 public:
  /// The count since the start; for RepliesPending, the number now.
  std::uint64_t get(Count count) const noexcept;

  /// @{
  /// For the one thread that counts.
  void add(Count count, std::uint64_t number = 1) noexcept;
  void set(Count count, std::uint64_t number) noexcept;
  /// @}

 private:
  std::array<std::atomic<std::uint64_t>, kCounts> counts_ = {};
};

}  // namespace korvex::receiver

#endif
