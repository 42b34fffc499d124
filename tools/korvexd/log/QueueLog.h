#ifndef KORVEXD_QUEUE_LOG_H
#define KORVEXD_QUEUE_LOG_H

#include <array>
#include <cstddef>
#include <string>

#include "korvexd/log/LogBudget.h"
#include "korvexd/log/LogEntry.h"

namespace korvexd {

/// The log of one queue's server. A peer can provoke everything here, so each kind of message has a
/// budget, and a line every ten seconds says how many were suppressed. Used by one thread.
class QueueLog {
 public:
  enum class Kind : std::size_t {
    StreamOpened,
    Stream,
    DamagedBatch,
    RefusedRecord,
    SinkTrouble,
    QueuePair
  };
  static constexpr std::size_t kKinds = static_cast<std::size_t>(Kind::QueuePair) + 1;

  /// The most lines of one kind in ten seconds: for opened and for ended streams, and for each of
  /// the other kinds.
  static constexpr std::uint64_t kMostStreams = 200;
  static constexpr std::uint64_t kMostOthers = 10;

  explicit QueueLog(std::string queue);

  /// Writes it, or counts it.
  void write(Kind kind, const LogEntry& entry);

  /// Says what was left out in periods that are over. Call it now and then.
  void update();

  /// Says what was left out and not said yet.
  void finish();

 private:
  void writeHeld(std::size_t kind, std::uint64_t held) const;

  const std::string queue_;
  std::array<LogBudget, kKinds> budgets_;
};

}  // namespace korvexd

#endif
