#include "korvexd/log/QueueLog.h"

#include <utility>

#include "korvexd/log/LogWriter.h"

namespace korvexd {
namespace {

constexpr std::array<const char*, QueueLog::kKinds> kTitles = {"opened streams",  "ended streams",
                                                               "damaged batches", "refused records",
                                                               "sink failures",   "lost queues"};

}  // namespace

QueueLog::QueueLog(std::string queue)
    : queue_(std::move(queue)), budgets_{LogBudget(kMostStreams), LogBudget(kMostStreams),
                                         LogBudget(kMostOthers),  LogBudget(kMostOthers),
                                         LogBudget(kMostOthers),  LogBudget(kMostOthers)} {}

void QueueLog::write(Kind kind, const LogEntry& entry) {
  update();
  auto& budget = budgets_[static_cast<std::size_t>(kind)];
  if (budget.take(LogBudget::Clock::now())) return writeLog(entry);
  ++logLosses().held;
}

void QueueLog::update() {
  const auto now = LogBudget::Clock::now();
  for (std::size_t kind = 0; kind < kKinds; ++kind) writeHeld(kind, budgets_[kind].due(now));
}

void QueueLog::finish() {
  for (std::size_t kind = 0; kind < kKinds; ++kind) writeHeld(kind, budgets_[kind].rest());
}

void QueueLog::writeHeld(std::size_t kind, std::uint64_t held) const {
  if (held == 0) return;
  writeLog(LogEntry(Event::LinesHeld, spdlog::level::warn, queue_,
                    std::to_string(held) + " more lines about " + kTitles[kind] +
                        " were suppressed within " + std::to_string(LogBudget::kPeriod.count()) +
                        " s")
               .with("lines", held));
}

}  // namespace korvexd
