#ifndef KORVEXD_QUEUE_LOG_H
#define KORVEXD_QUEUE_LOG_H

#include <spdlog/spdlog.h>

#include <array>
#include <cstddef>
#include <string>

#include "korvexd/report/LogBudget.h"

namespace korvexd {

/// What one queue's server has to say. Everything here can be provoked by a peer, so each kind of
/// message has a budget, and a line every ten seconds says how many were left out.
/// Used by one thread.
class QueueLog {
 public:
  enum class Kind : std::size_t { Stream, DamagedBatch, RefusedRecord, SinkTrouble, QueuePair };
  static constexpr std::size_t kKinds = static_cast<std::size_t>(Kind::QueuePair) + 1;

  /// How many lines of a kind there are in ten seconds: of streams that ended, and of the others.
  static constexpr std::uint64_t kMostStreams = 200;
  static constexpr std::uint64_t kMostOthers = 10;

  explicit QueueLog(std::string queue);

  /// Writes "QUEUE: TEXT", or counts it.
  void write(Kind kind, spdlog::level::level_enum level, const std::string& text);

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
