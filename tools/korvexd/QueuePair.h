#ifndef KORVEXD_QUEUE_PAIR_H
#define KORVEXD_QUEUE_PAIR_H

#include <sys/types.h>

#include <string>

#include "korvexd/OwnedQueue.h"
#include "shm/MessageQueue.h"

namespace korvexd {

/// The two queues that a producer works with: NAME for its batches, NAMEResponse for the replies.
///
/// Both names appear when both queues are usable, the one that producers open first as the last;
/// they disappear with the pair.
class QueuePair {
 public:
  /// What to do with queues that exist under these names.
  enum class Existing { Refuse, Replace };

  /// Throws std::exception: a name is taken or served by another daemon, there is no room. Nothing
  /// is left behind then.
  QueuePair(const std::string& name, korvex::MessageQueue::Limits limits, mode_t mode,
            Existing existing);

  /// Whether producers still find both queues.
  bool isStillNamed() const noexcept { return replies_.isStillNamed() && batches_.isStillNamed(); }

  /// Whether both queues have the size that producers expect.
  bool isWhole() const noexcept { return replies_.isWhole() && batches_.isWhole(); }

  /// Whether both queues hold what a queue holds, or may just be changing it.
  bool isIntact() const noexcept {
    return !replies_.view().isDamaged() && !batches_.view().isDamaged();
  }

  OwnedQueue& batches() noexcept { return batches_; }
  OwnedQueue& replies() noexcept { return replies_; }

 private:
  OwnedQueue replies_;
  OwnedQueue batches_;
};

}  // namespace korvexd

#endif
