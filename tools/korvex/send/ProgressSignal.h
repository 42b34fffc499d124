#ifndef KORVEX_TOOL_PROGRESS_SIGNAL_H
#define KORVEX_TOOL_PROGRESS_SIGNAL_H

#include <atomic>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <thread>

#include "Progress.h"

namespace korvex::tool {

/// Says on standard error, in one line, how far a stream is, each time SIGUSR1 comes.
///
/// A thread of its own waits for the signal, so the answer comes at once whatever the stream waits
/// for: the daemon, room in the queue, its input, the receipt. Where the system has no thread left
/// nobody answers.
class ProgressSignal {
 public:
  using Clock = Progress::Clock;

  /// Blocks the signal, in threads that start later too, so that it waits to be answered. Before
  /// that it would end the process: call it at the start of main().
  static void expect() noexcept;

  explicit ProgressSignal(Clock::time_point start) noexcept;
  ~ProgressSignal();
  ProgressSignal(const ProgressSignal&) = delete;
  ProgressSignal& operator=(const ProgressSignal&) = delete;

  /// What the stream is doing now; a literal.
  void note(const char* doing) noexcept { doing_ = doing; }

  void noteTotal(std::optional<std::uint64_t> total) noexcept { total_ = total.value_or(kUnknown); }
  void noteBytes(std::uint64_t bytes) noexcept { bytes_ = bytes; }

  /// Everything was sent, and the stream waits for something else; a literal, too.
  void noteWait(const char* what, Clock::time_point sent) noexcept {
    doing_ = what;
    sent_ = sent;
  }

 private:
  static constexpr std::uint64_t kUnknown = std::numeric_limits<std::uint64_t>::max();
  static constexpr Clock::time_point kNotYet = Clock::time_point::max();

  void answerSignals() const;
  void answer() const;
  std::string numbers() const;

  const Clock::time_point start_;
  std::atomic<const char*> doing_{"opening the stream"};
  std::atomic<std::uint64_t> total_{kUnknown};
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<Clock::time_point> sent_{kNotYet};
  std::atomic<bool> isOver_{false};
  std::thread thread_;
};

}  // namespace korvex::tool

#endif
