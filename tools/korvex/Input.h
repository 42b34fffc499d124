#ifndef KORVEX_TOOL_INPUT_H
#define KORVEX_TOOL_INPUT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

namespace korvex::tool {

/// Where a stream's data comes from. Whatever fails throws a Failure; a signal throws Interrupted.
class Input {
 public:
  virtual ~Input() = default;

  /// The bytes to come as far as is known now; nothing when that is unknown.
  virtual std::optional<std::uint64_t> totalBytes() const = 0;

  /// Called twice a second while an input that may be silent is waited for or read.
  void whenIdle(std::function<void()> action) { idle_ = std::move(action); }

  /// Moves on to the next part, whose data shares no segment with others. False after the last.
  virtual bool openNext() = 0;

  /// Reads until the buffer is full or the present part ends, and returns the number of bytes.
  /// Fewer than `size` mean that the part has ended.
  std::size_t fill(unsigned char* buffer, std::size_t size) {
    std::size_t filled = 0;
    while (filled < size) {
      const std::size_t got = readSome(buffer + filled, size - filled);
      if (got == 0) break;
      filled += got;
    }
    return filled;
  }

  /// Call it after the last part: throws unless everything is known to have been read.
  virtual void finish() {}

 protected:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::milliseconds kIdlePeriod{500};

  Input() = default;
  Input(const Input&) = default;
  Input& operator=(const Input&) = default;

  /// Does the periodic work of a wait when it is due. An input that trickles never waits for long,
  /// so every iteration of a waiting loop calls this.
  void pulse() {
    const auto now = Clock::now();
    if (!idle_ || now < nextPulse_) return;
    nextPulse_ = now + kIdlePeriod;
    idle_();
  }

 private:
  /// Waits for some bytes of the present part; 0 at its end.
  virtual std::size_t readSome(unsigned char* buffer, std::size_t size) = 0;

  std::function<void()> idle_;
  Clock::time_point nextPulse_;
};

}  // namespace korvex::tool

#endif
