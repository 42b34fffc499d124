#ifndef KORVEXD_STALE_QUEUE_H
#define KORVEXD_STALE_QUEUE_H

#include <string>

#include "korvexd/File.h"

namespace korvexd {

/// Takes over what lies under a queue's name, so that it can be removed. Nothing is fine too.
class StaleQueue {
 public:
  /// Throws std::runtime_error when a living daemon serves the queue, or when what lies there
  /// cannot be a daemon's of this user, a file that never was a queue for example.
  explicit StaleQueue(std::string name);

  /// Removes the name. Throws SystemError.
  void remove();

 private:
  std::string name_;
  File claim_;  ///< keeps other daemons away until the name is gone
};

}  // namespace korvexd

#endif
