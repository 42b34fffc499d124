#ifndef KORVEXD_QUEUE_COUNTS_H
#define KORVEXD_QUEUE_COUNTS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <korvex/receiver/BatchCheck.h>
#include <korvex/receiver/StreamSummary.h>

namespace korvexd {

/// How programs name the ending of a stream, in metrics and in the log.
constexpr const char* resultOf(korvex::receiver::Ending ending) noexcept {
  using korvex::receiver::Ending;
  switch (ending) {
    case Ending::Complete:
      return "complete";
    case Ending::Stopped:
      return "stopped";
    case Ending::CutOff:
      return "cut_off";
    case Ending::Silent:
      return "silent";
    case Ending::Corrupt:
      return "corrupt";
    case Ending::SinkFailed:
      return "not_stored";
    case Ending::QueuesLost:
      return "queues_lost";
    case Ending::ReceiverEnded:
      break;
  }
  return "daemon_ended";
}

/// What is counted of one queue beside its receiver's counters. One thread counts, any may read.
struct QueueCounts {
  using Number = std::atomic<std::uint64_t>;
  using Ending = korvex::receiver::Ending;
  using Defect = korvex::receiver::BatchCheck::Defect;

  static constexpr std::size_t kEndings = static_cast<std::size_t>(Ending::ReceiverEnded) + 1;
  static constexpr std::size_t kDefects = static_cast<std::size_t>(Defect::TrailingBytes) + 1;

  std::array<Number, kEndings> ended{};           ///< streams, by how
  std::array<Number, kDefects> batchesRefused{};  ///< by what was wrong
  Number recordsRefused{0};                       ///< outside of any stream
  Number abandonFailures{0};
  Number captureFailures{0};
  Number failuresToReplace{0};  ///< tries in a row count once
  Number newPairs{0};           ///< made in place of others
  Number settingsFailures{0};   ///< changes that were taken back
  Number messagesLeft{0};       ///< when the daemon ended
  std::atomic<bool> isServed{true};
  std::atomic<std::time_t> lastComplete{0};  ///< when; 0 for never since the start
};

}  // namespace korvexd

#endif
