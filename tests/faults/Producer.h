#ifndef KORVEX_TESTS_FAULTS_PRODUCER_H
#define KORVEX_TESTS_FAULTS_PRODUCER_H

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <signal.h>
#include <string>
#include <vector>

namespace korvex::test {

/// What a producer of the harness sends: `streams` streams of `size` bytes each, numbered from
/// `number` on, each one only after the receipt of the one before.
struct Load {
  std::string queue;
  std::uint64_t number;
  std::uint64_t streams;
  std::uint64_t size;
};

constexpr unsigned kTimeoutSeconds = 1;

/// What a call of the library may take: its timeout and a little for the machine.
constexpr std::chrono::milliseconds kCallLimit{kTimeoutSeconds * 1000 + 250};

/// Asks a producer to send no stream after the one it is at. Always blocked, so that it neither
/// interrupts a call of the library nor ends a producer that is still starting.
constexpr int kEndSignal = SIGUSR1;

/// When a call of the library began and returned. The clock is the same in all processes.
struct Call {
  using Clock = std::chrono::steady_clock;

  Clock::time_point begin;
  Clock::time_point end;
};

/// How a producer ended.
struct Ending {
  std::string outcome;          ///< complete, no-receipt, timed-out or failed
  std::uint64_t receipts;       ///< streams for which the daemon said that they are stored
  std::vector<Call> slowCalls;  ///< all that took longer than the limit
};

/// As a producer prints it, in one line. Reading fails when the line is not whole.
std::ostream& operator<<(std::ostream& out, const Ending& ending);
std::istream& operator>>(std::istream& in, Ending& ending);

/// Runs the load in this process and prints how it ended.
int produce(const Load& load);

}  // namespace korvex::test

#endif
