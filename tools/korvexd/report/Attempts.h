#ifndef KORVEXD_ATTEMPTS_H
#define KORVEXD_ATTEMPTS_H

#include <cstdint>
#include <exception>
#include <utility>

#include "korvexd/log/LogEntry.h"

namespace korvexd {

/// A repeated attempt, such as writing a file: the first failure in a row is logged, and all are
/// counted. For one thread.
class Attempts {
 public:
  template <typename Action>
  void attempt(Action action) noexcept {
    try {
      action();
      isFailing_ = false;
    } catch (const std::exception& error) {
      ++failures_;
      if (!std::exchange(isFailing_, true)) report(error);
    }
  }

  std::uint64_t failures() const noexcept { return failures_; }

 private:
  static void report(const std::exception& error) noexcept {
    tryToLog([&] { return LogEntry(Event::FileFailed, spdlog::level::warn, "", error.what()); });
  }

  std::uint64_t failures_ = 0;
  bool isFailing_ = false;
};

}  // namespace korvexd

#endif
