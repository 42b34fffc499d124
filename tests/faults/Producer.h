#ifndef KORVEX_TESTS_FAULTS_PRODUCER_H
#define KORVEX_TESTS_FAULTS_PRODUCER_H

#include <cstdint>
#include <string>

namespace korvex_faults {

/// What a producer of the harness sends: `streams` streams of `size` bytes each, numbered from
/// `number` on, each one only after the receipt of the one before.
struct Load {
  std::string queue;
  std::uint64_t number;
  std::uint64_t streams;
  std::uint64_t size;
};

constexpr unsigned kTimeoutSeconds = 1;

/// How a producer ended, as it prints it: "OUTCOME RECEIPTS LONGEST_MS".
struct Ending {
  std::string outcome;     ///< complete, no-receipt or failed
  std::uint64_t receipts;  ///< streams for which the daemon said that they are stored
  double longestMs;        ///< the longest call of the library
};

/// Runs the load in this process and prints how it ended.
int produce(const Load& load);

}  // namespace korvex_faults

#endif
