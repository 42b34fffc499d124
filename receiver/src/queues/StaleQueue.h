#ifndef KORVEX_RECEIVER_STALE_QUEUE_H
#define KORVEX_RECEIVER_STALE_QUEUE_H

#include <string>

#include "queues/QueueObject.h"

namespace korvex::receiver {

/// Takes over what has a queue's name, so that it can be removed. An absent queue is not an error.
class StaleQueue {
 public:
  /// Throws std::runtime_error if a living daemon serves the queue, or if the object cannot have
  /// been left by a daemon of this user: a file that never was a queue, for example.
  explicit StaleQueue(std::string name);

  /// Removes the name. False when nothing lay there. Throws SystemError.
  bool remove();

 private:
  std::string name_;
  QueueObject claim_;  ///< keeps other daemons away until the name is gone
};

}  // namespace korvex::receiver

#endif
