#include "korvexd/log/LogBudget.h"

#include <utility>

namespace korvexd {

bool LogBudget::take(Clock::time_point now) noexcept {
  if (!periodEnd_) periodEnd_ = now + kPeriod;
  if (passed_ == perPeriod_) {
    ++held_;
    return false;
  }
  ++passed_;
  return true;
}

std::uint64_t LogBudget::due(Clock::time_point now) noexcept {
  return periodEnd_ && now >= *periodEnd_ ? rest() : 0;
}

std::uint64_t LogBudget::rest() noexcept {
  periodEnd_.reset();
  passed_ = 0;
  return std::exchange(held_, 0);
}

}  // namespace korvexd
