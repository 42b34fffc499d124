#include "queues/LockWatch.h"

namespace korvexd {

void LockWatch::note(korvex::MessageQueue::Outcome outcome, const korvex::QueueView& view,
                     Clock::time_point now) {
  if (outcome != korvex::MessageQueue::Outcome::LockTaken) return takenSince_.reset();
  if (view.isLockOwnerGone()) throw LockLost("a process died with the queue's lock");
  if (!takenSince_) takenSince_ = now;
  if (now - *takenSince_ >= kPatience) throw LockLost("the queue's lock stayed taken");
}

}  // namespace korvexd
