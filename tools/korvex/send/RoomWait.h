#ifndef KORVEX_TOOL_ROOM_WAIT_H
#define KORVEX_TOOL_ROOM_WAIT_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <korvex/receiver/QueueStatus.h>
#include <thread>

#include "send/LookUntil.h"

namespace korvex::tool {

/// Waits for room in a full queue, again and again behind a daemon that is slower.
///
/// A sender that filled each place as soon as it is free would wake up for every batch. It is
/// cheaper to sleep until half of the queue is free, and the daemon still does not run out of work.
class RoomWait {
 public:
  using Clock = std::chrono::steady_clock;

  /// False when the queue is still full at the deadline. After each look that finds it full,
  /// `check` is called; what that throws ends the wait. The first look follows the sleep.
  template <typename Check>
  bool behind(const receiver::QueueStatus& queue, Clock::time_point deadline, Check check) {
    const auto start = Clock::now();
    const auto hasRoom = [&] {
      if (!queue.looksFull()) return true;
      check();
      return false;
    };
    std::this_thread::sleep_for(std::clamp(halfTime_, kShortestSleep, kLongestHalfTime));
    if (!lookUntil(deadline, hasRoom)) return false;
    note(Clock::now() - start, queue);
    return true;
  }

 private:
  static constexpr Clock::duration kLongestHalfTime = std::chrono::milliseconds(20);

  /// One wait that was long says nothing yet: the daemon may have had something else to do once. So
  /// the estimate doubles at most.
  void note(Clock::duration waited, const receiver::QueueStatus& queue) {
    const auto capacity = std::max<std::size_t>(1, queue.limits().messages);
    const std::size_t taken = capacity - std::min(queue.messages(), capacity - 1);
    const auto found =
        waited / static_cast<Clock::rep>(2 * taken) * static_cast<Clock::rep>(capacity);
    halfTime_ = std::min(found, 2 * std::max(halfTime_, kShortestSleep));
  }

  Clock::duration halfTime_{};  ///< in which the daemon took half of a full queue
};

}  // namespace korvex::tool

#endif
