#include "queues/LockWatch.h"

namespace korvex::receiver {

void LockWatch::note(MessageQueue::Outcome outcome, const QueueView& view,
                     Clock::time_point now) {
  if (outcome != MessageQueue::Outcome::LockTaken) return takenSince_.reset();
  if (view.isLockOwnerGone()) throw LockLost("a process died with the queue's lock");
  if (!takenSince_) takenSince_ = now;
  if (now - *takenSince_ >= kPatience) throw LockLost("the queue's lock stayed taken");
}

}  // namespace korvex::receiver
