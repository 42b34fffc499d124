#ifndef BENCH_COMPARE_MEASUREMENT_H
#define BENCH_COMPARE_MEASUREMENT_H

#include <cstdint>
#include <string>

#include "Transport.h"

namespace bench {

/// What one process used.
struct Usage {
  double cpuSeconds;
  std::uint64_t peakKib;  ///< resident memory at its highest, shared pages included
};

/// One way, carried through once.
struct Result {
  double seconds;  ///< from the producer's first record to the consumer's last
  std::uint64_t records;
  std::uint64_t bytes;  ///< as messages, headers included
  std::uint64_t messages;
  Usage producer;
  Usage consumer;
};

/// Carries the records from a new producer process to a new consumer process. Throws when either
/// fails, with what it said; checks that every record came, in order.
Result measure(const Settings& settings, Transport& transport);

}  // namespace bench

#endif
