#include "korvexd/LockWatch.h"

namespace korvexd {

void LockWatch::note(korvex::MessageQueue::Outcome outcome, const korvex::QueueView& view,
                     Clock::time_point now) {
  if (outcome != korvex::MessageQueue::Outcome::LockTaken) return outOfReachSince_.reset();
  noteTaken(view, now);
  if (now >= nextLook_) {
    if (view.isLockOwnerGone()) throw LockLost("a process died with the queue's lock");
    nextLook_ = now + kLookPeriod;
  }
  if (now - heldSince_ >= kPatience || now - *outOfReachSince_ >= kLongestPatience) {
    throw LockLost("the queue's lock stayed taken");
  }
}

void LockWatch::noteTaken(const korvex::QueueView& view, Clock::time_point now) {
  const Hold hold = {view.lockOwner(), view.messages()};
  const bool isSame =
      outOfReachSince_ && hold.owner == hold_.owner && hold.messages == hold_.messages;
  hold_ = hold;
  if (!outOfReachSince_) outOfReachSince_ = now;
  if (isSame) return;
  heldSince_ = now;
  nextLook_ = now;  // another owner
}

}  // namespace korvexd
