#ifndef KORVEXD_LOCK_WATCH_H
#define KORVEXD_LOCK_WATCH_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <stdexcept>

#include "shm/MessageQueue.h"

namespace korvexd {

/// The queue's lock will not be given back.
class LockLost : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Tells a lock that is busy from one that a dead or stopped peer has kept.
class LockWatch {
 public:
  using Clock = korvex::MessageQueue::Clock;

  /// How long one owner may keep the lock while it may live. It may be stopped, or live where it
  /// cannot be seen from here.
  static constexpr std::chrono::seconds kPatience{5};

  /// How long the lock may be out of reach whoever has it: longer than any crowd of producers
  /// takes, and an end to waiting for one that keeps changing the owner's name.
  static constexpr std::chrono::seconds kLongestPatience{60};

  /// How often the system is asked for the owner: it may have to look at every process.
  static constexpr std::chrono::milliseconds kLookPeriod{200};

  /// Notes how an operation ended at this time. Throws LockLost when the queue is of no more use.
  void note(korvex::MessageQueue::Outcome outcome, const korvex::QueueView& view,
            Clock::time_point now);

 private:
  /// What changes when the lock is given back and taken again, in most cases.
  struct Hold {
    pid_t owner;
    std::size_t messages;
  };

  void noteTaken(const korvex::QueueView& view, Clock::time_point now);

  std::optional<Clock::time_point> outOfReachSince_;
  Clock::time_point heldSince_{};
  Clock::time_point nextLook_{};
  Hold hold_{};
};

}  // namespace korvexd

#endif
