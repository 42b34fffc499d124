#include "Progress.h"

#include <algorithm>
#include <ostream>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/Printable.h"

namespace korvex::tool {
namespace {

constexpr std::chrono::milliseconds kPeriod{100};
constexpr std::size_t kUsualWidth = 80;
constexpr std::size_t kShortestBar = 5;
constexpr std::size_t kLongestBar = 50;
constexpr std::size_t kBarFrame = 3;  // brackets and a space
constexpr std::uint64_t kWhole = 100;
constexpr double kLongestTimeLeft = 359999;  // 99:59:59
constexpr std::string_view kToStart = "\r";
constexpr std::string_view kEraseRest = "\x1b[K";

double rateOf(const ProgressState& state) {
  const double seconds = std::chrono::duration<double>(state.elapsed).count();
  return seconds > 0 ? static_cast<double>(state.bytes) / seconds : 0;
}

std::string rateText(const ProgressState& state) { return common::byteText(rateOf(state)) + "/s"; }

std::string timeLeftText(const ProgressState& state) {
  const double rate = rateOf(state);
  if (rate <= 0) return "-:--";
  const double left = static_cast<double>(*state.total - state.bytes) / rate;
  return common::timeText(
      std::chrono::seconds(static_cast<long>(std::min(left, kLongestTimeLeft))));
}

double shareOf(const ProgressState& state) {
  if (*state.total == 0) return 1;
  return static_cast<double>(state.bytes) / static_cast<double>(*state.total);
}

/// Rounded down, so that 100 % means all.
std::string percentText(const ProgressState& state) {
  const auto percent = static_cast<unsigned>(shareOf(state) * static_cast<double>(kWhole));
  const std::string digits = std::to_string(percent);
  return std::string(3 - std::min<std::size_t>(3, digits.size()), ' ') + digits + "% ";
}

std::string barText(const ProgressState& state, std::size_t length) {
  const auto done = static_cast<std::size_t>(shareOf(state) * static_cast<double>(length));
  return "[" + std::string(done, '=') + std::string(length - done, ' ') + "] ";
}

std::string knownLine(const ProgressState& state, std::size_t width) {
  const std::string percent = percentText(state);
  const std::string numbers = common::byteText(static_cast<double>(state.bytes)) + " of " +
                              common::byteText(static_cast<double>(*state.total)) + ", " +
                              rateText(state) + ", " + timeLeftText(state) + " left";
  const std::size_t used = percent.size() + numbers.size() + kBarFrame;
  if (used + kShortestBar > width) return percent + numbers;
  return percent + barText(state, std::min(width - used, kLongestBar)) + numbers;
}

std::string unknownLine(const ProgressState& state) {
  const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(state.elapsed);
  return common::byteText(static_cast<double>(state.bytes)) + ", " + rateText(state) + ", " +
         common::timeText(elapsed);
}

}  // namespace

std::string progressLine(const ProgressState& state, std::size_t width) {
  const bool isKnown = state.total && state.bytes <= *state.total;
  return (isKnown ? knownLine(state, width) : unknownLine(state)).substr(0, width);
}

std::string sentText(std::uint64_t bytes, std::chrono::nanoseconds ago) {
  return common::byteText(static_cast<double>(bytes)) + " sent " +
         common::timeText(std::chrono::duration_cast<std::chrono::seconds>(ago)) + " ago";
}

Progress::Progress(std::ostream& terminal, Width width)
    : terminal_(&terminal), width_(std::move(width)) {}

void Progress::start(std::optional<std::uint64_t> total, Clock::time_point now) {
  total_ = total;
  start_ = now;
  nextDrawing_ = now + kPeriod;  // short streams show no bar
}

void Progress::show(std::uint64_t bytes, Clock::time_point now) {
  if (isDue(now)) draw(progressLine({bytes, total_, now - start_}, columns()), now);
}

void Progress::showWait(const char* what, std::uint64_t bytes, Clock::time_point sent,
                        Clock::time_point now) {
  if (!isDue(now)) return;
  draw((std::string(what) + ": " + sentText(bytes, now - sent)).substr(0, columns()), now);
}

bool Progress::isDue(Clock::time_point now) const {
  return terminal_ != nullptr && now >= nextDrawing_;
}

/// The last column stays empty: some terminals wrap when it is written.
std::size_t Progress::columns() const { return std::max(width_(), std::size_t{1}) - 1; }

void Progress::draw(const std::string& line, Clock::time_point now) {
  nextDrawing_ = now + kPeriod;
  isDrawn_ = true;
  *terminal_ << kToStart << line << kEraseRest << std::flush;
}

void Progress::clear() {
  if (!isDrawn_) return;
  isDrawn_ = false;
  *terminal_ << kToStart << kEraseRest << std::flush;
}

std::size_t terminalWidth() {
  winsize size = {};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsualWidth;
  return size.ws_col;
}

}  // namespace korvex::tool
