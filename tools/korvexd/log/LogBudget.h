#ifndef KORVEXD_LOG_BUDGET_H
#define KORVEXD_LOG_BUDGET_H

#include <chrono>
#include <cstdint>
#include <optional>

namespace korvexd {

/// Keeps messages that a peer can provoke from filling the disk: a limited number pass per period,
/// the rest are counted. Used by one thread.
class LogBudget {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::seconds kPeriod{10};

  explicit LogBudget(std::uint64_t perPeriod) noexcept : perPeriod_(perPeriod) {}

  /// Whether one more message may pass now. Ask for due() first.
  bool take(Clock::time_point now) noexcept;

  /// How many were held back in a period that is over, once; 0 when none were.
  std::uint64_t due(Clock::time_point now) noexcept;

  /// The same for a period that still runs: nothing follows any more.
  std::uint64_t rest() noexcept;

 private:
  const std::uint64_t perPeriod_;
  std::optional<Clock::time_point> periodEnd_;  ///< none while nothing was said lately
  std::uint64_t passed_ = 0;
  std::uint64_t held_ = 0;
};

}  // namespace korvexd

#endif
