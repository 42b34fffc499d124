#ifndef KORVEXD_QUEUE_FILL_H
#define KORVEXD_QUEUE_FILL_H

#include <korvex/receiver/QueueStatus.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace korvexd {

/// How full a queue is, seen from outside: its own thread may be stuck in a sink while producers
/// wait. For one thread.
class QueueFill {
 public:
  using Clock = std::chrono::steady_clock;

  QueueFill(std::string queue, Clock::time_point now) : queue_(std::move(queue)), lastLook_(now) {}

  /// A queue that is full now counts as full since the last look.
  void look(Clock::time_point now);

  // As of the last look.
  std::size_t messages() const noexcept { return messages_; }
  std::size_t capacity() const noexcept { return capacity_; }
  std::chrono::duration<double> fullTime() const noexcept { return fullTime_; }

 private:
  void findQueue();

  const std::string queue_;
  Clock::time_point lastLook_;
  std::optional<korvex::receiver::QueueStatus> status_;  ///< of a sound queue
  std::size_t messages_ = 0;
  std::size_t capacity_ = 0;
  Clock::duration fullTime_{};
};

}  // namespace korvexd

#endif
