#include "korvexd/report/QueueLog.h"

#include <utility>

namespace korvexd {
namespace {

constexpr std::array<const char*, QueueLog::kKinds> kTitles = {
    "streams that ended", "damaged batches", "refused records", "failures of a sink",
    "losses of the queues"};

}  // namespace

QueueLog::QueueLog(std::string queue)
    : queue_(std::move(queue)),
      budgets_{LogBudget(kMostStreams), LogBudget(kMostOthers), LogBudget(kMostOthers),
               LogBudget(kMostOthers), LogBudget(kMostOthers)} {}

void QueueLog::write(Kind kind, spdlog::level::level_enum level, const std::string& text) {
  update();
  auto& budget = budgets_[static_cast<std::size_t>(kind)];
  if (budget.take(LogBudget::Clock::now())) spdlog::log(level, "{}: {}", queue_, text);
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
  spdlog::warn("{}: {} more lines about {} were left out within {} s", queue_, held, kTitles[kind],
               LogBudget::kPeriod.count());
}

}  // namespace korvexd
