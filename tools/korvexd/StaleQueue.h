#ifndef KORVEXD_STALE_QUEUE_H
#define KORVEXD_STALE_QUEUE_H

#include <string>

#include "korvexd/File.h"

namespace korvexd {

/// Takes over what lies under a queue's name, so that it can be removed. Nothing is fine too.
class StaleQueue {
 public:
  /// Throws std::runtime_error when a living daemon serves the queue.
  explicit StaleQueue(std::string name);

  /// Removes the name.
  void remove();

 private:
  std::string name_;
  File claim_;  ///< keeps other daemons away until the name is gone
};

}  // namespace korvexd

#endif
