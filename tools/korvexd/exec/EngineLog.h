#ifndef KORVEXD_ENGINE_LOG_H
#define KORVEXD_ENGINE_LOG_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace korvexd {

/// Turns an engine's output into log lines, rate-limited.
///
/// Lines end with a line feed or a carriage return; empty ones do not count. Bytes that are not
/// text are shown in hex, long lines are truncated, and beyond kMostLines per period lines are only
/// counted.
class EngineLog {
 public:
  using Clock = std::chrono::steady_clock;
  using Print = std::function<void(const std::string& line)>;

  static constexpr std::size_t kLongestLine = 512;
  static constexpr unsigned kMostLines = 100;  ///< in each period
  static constexpr std::chrono::seconds kPeriod{10};

  explicit EngineLog(Print print) : print_(std::move(print)) {}

  /// Takes what was written next, at this time.
  void take(std::string_view untrusted, Clock::time_point now);

  /// Nothing more comes: prints what is begun and what was left out.
  void end();

  /// The last line that is not empty, printed or not, even if it is unfinished.
  std::string lastLine() const;

 private:
  void takePart(std::string_view untrusted);
  void endLine(Clock::time_point now);
  void printOmitted();
  std::string shownLine() const;

  const Print print_;
  std::string line_;
  std::uint64_t cutBytes_ = 0;  ///< of this line
  std::string lastLine_;
  Clock::time_point periodStart_{};
  unsigned printed_ = 0;       ///< in this period
  std::uint64_t omitted_ = 0;  ///< in this period
};

}  // namespace korvexd

#endif
