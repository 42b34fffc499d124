#ifndef KORVEXD_QUEUE_FILL_H
#define KORVEXD_QUEUE_FILL_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace korvexd {

/// How full a queue is, seen from outside: its own thread may be stuck in a sink while producers
/// wait. Between two looks it has nothing of the queue in view: where memory is short, the old pair
/// must be gone before another is made. For one thread.
class QueueFill {
 public:
  using Clock = std::chrono::steady_clock;

  /// What the queue's own thread does.
  struct Activity {
    bool isWaiting;
    std::uint64_t steps;  ///< so far: batches that it took, pairs that came and went
  };

  QueueFill(std::string queue, Clock::time_point now) : queue_(std::move(queue)), lastLook_(now) {}

  /// A queue that is full now counts as full since the last look. One whose thread has done nothing
  /// since then but wait is as it was: it is not opened, for that would cost an idle daemon as much
  /// as all the rest, and make its watch expect a producer.
  void look(Clock::time_point now, const Activity& activity);

  // As of the last look.
  std::size_t messages() const noexcept { return messages_; }
  std::size_t capacity() const noexcept { return capacity_; }
  std::chrono::duration<double> fullTime() const noexcept { return fullTime_; }

 private:
  void open();

  const std::string queue_;
  Clock::time_point lastLook_;
  std::optional<std::uint64_t> lastSteps_;
  std::size_t messages_ = 0;
  std::size_t capacity_ = 0;
  Clock::duration fullTime_{};
};

}  // namespace korvexd

#endif
