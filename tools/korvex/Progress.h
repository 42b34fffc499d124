#ifndef KORVEX_TOOL_PROGRESS_H
#define KORVEX_TOOL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>

namespace korvex::tool {

/// How far a stream has come.
struct ProgressState {
  std::uint64_t bytes;
  std::optional<std::uint64_t> total;  ///< unknown for a pipe
  std::chrono::nanoseconds elapsed;
};

/// One line of at most `width` columns. With a total: percentage, bar, bytes, rate and time left;
/// without, or when there is more than was announced: bytes, rate and time so far.
std::string progressLine(const ProgressState& state, std::size_t width);

/// What to say in place of that once everything was sent: how much, and how long ago.
std::string sentText(std::uint64_t bytes, std::chrono::nanoseconds ago);

/// The line on a terminal, redrawn in place at most ten times a second.
class Progress {
 public:
  using Clock = std::chrono::steady_clock;
  using Width = std::function<std::size_t()>;

  /// Draws on `terminal`, which outlives the progress, as wide as `width` says each time.
  Progress(std::ostream& terminal, Width width);

  /// Draws nothing, ever.
  Progress() noexcept = default;

  void start(std::optional<std::uint64_t> total, Clock::time_point now);

  /// Draws when the last drawing is old enough.
  void show(std::uint64_t bytes, Clock::time_point now);

  /// The same once everything was sent, with what is waited for.
  void showWait(const char* what, std::uint64_t bytes, Clock::time_point sent,
                Clock::time_point now);

  /// Erases the line, if there is one.
  void clear();

 private:
  bool isDue(Clock::time_point now) const;
  std::size_t columns() const;
  void draw(const std::string& line, Clock::time_point now);

  std::ostream* terminal_ = nullptr;
  Width width_;
  std::optional<std::uint64_t> total_;
  Clock::time_point start_;
  Clock::time_point nextDrawing_;
  bool isDrawn_ = false;
};

/// The width of the terminal on standard error, 80 when it does not say.
std::size_t terminalWidth();

}  // namespace korvex::tool

#endif
