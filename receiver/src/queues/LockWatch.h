#ifndef KORVEX_RECEIVER_LOCK_WATCH_H
#define KORVEX_RECEIVER_LOCK_WATCH_H

#include <chrono>
#include <optional>
#include <stdexcept>

#include "queue/MessageQueue.h"

namespace korvex::receiver {

/// The queue's lock will not be given back.
class LockLost : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Tells a lock that is busy from one that a dead or stopped peer has kept.
class LockWatch {
 public:
  using Clock = MessageQueue::Clock;

  /// How long a lock may stay taken while its owner lives. The owner may be stopped, or live where
  /// it cannot be seen from here.
  static constexpr std::chrono::seconds kPatience{5};

  /// Notes how an operation ended at this time. Throws LockLost when the queue is of no more use.
  void note(MessageQueue::Outcome outcome, const QueueView& view,
            Clock::time_point now);

 private:
  std::optional<Clock::time_point> takenSince_;
};

}  // namespace korvex::receiver

#endif
