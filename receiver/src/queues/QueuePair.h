#ifndef KORVEX_RECEIVER_QUEUE_PAIR_H
#define KORVEX_RECEIVER_QUEUE_PAIR_H

#include <string>
#include <sys/types.h>

#include "korvex/receiver/Receiver.h"
#include "queue/MessageQueue.h"
#include "queues/OwnedQueue.h"

namespace korvex::receiver {

/// The two queues that a producer works with: NAME for its batches, NAMEResponse for the replies.
///
/// Both names appear once both queues are usable, the one that producers open first coming last;
/// they disappear with the pair.
class QueuePair {
 public:
  /// Throws std::exception: a name is taken or served by another daemon, there is no room. Nothing
  /// is left behind then.
  QueuePair(const Receiver::Settings& settings, Receiver::Existing existing);

  /// Whether a change from the one to the other needs no new pair.
  static bool isMadeAlike(const Receiver::Settings& one, const Receiver::Settings& other) noexcept;

  /// As OwnedQueue's, of either queue.
  std::string defect() {
    const std::string defect = replies_.defect();
    return defect.empty() ? batches_.defect() : defect;
  }

  void removeNames() noexcept {
    batches_.removeName();
    replies_.removeName();
  }

  OwnedQueue& batches() noexcept { return batches_; }
  OwnedQueue& replies() noexcept { return replies_; }

 private:
  OwnedQueue replies_;
  OwnedQueue batches_;
};

}  // namespace korvex::receiver

#endif
