#ifndef KORVEX_RECEIVER_LOCK_WATCH_H
#define KORVEX_RECEIVER_LOCK_WATCH_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <sys/types.h>

#include "queue/MessageQueue.h"

namespace korvex::receiver {

/// The queue's lock will not be released.
class LockLost : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Tells a busy lock from one that a dead or stopped peer holds.
class LockWatch {
 public:
  using Clock = MessageQueue::Clock;

  /// How long one owner may hold the lock while it may be alive: stopped, or in a PID namespace
  /// that cannot be seen from here.
  static constexpr std::chrono::seconds kPatience{5};

  /// How long the lock may be out of reach, whatever owners it has: longer than any crowd of
  /// producers keeps it, but a limit if something keeps changing the recorded owner.
  static constexpr std::chrono::seconds kLongestPatience{60};

  /// How often the owner is looked up, which may scan every process.
  static constexpr std::chrono::milliseconds kLookPeriod{200};

  /// Records an operation's outcome. Throws LockLost once the lock's owner is dead, or the lock has
  /// been out of reach for too long.
  void note(MessageQueue::Outcome outcome, const QueueView& view, Clock::time_point now);

 private:
  /// Changes, in most cases, when the lock is released and taken again.
  struct Hold {
    pid_t owner;
    std::size_t messages;
  };

  void noteTaken(const QueueView& view, Clock::time_point now);

  std::optional<Clock::time_point> outOfReachSince_;
  Clock::time_point heldSince_{};
  Clock::time_point nextLook_{};
  Hold hold_{};
};

}  // namespace korvex::receiver

#endif
