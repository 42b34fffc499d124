#include "korvexd/metrics/QueueFill.h"

#include <korvex/receiver/QueueStatus.h>
#include <utility>

namespace korvexd {

using korvex::receiver::QueueStatus;

void QueueFill::look(Clock::time_point now, const Activity& activity) {
  const Clock::duration sinceLastLook = now - std::exchange(lastLook_, now);
  const bool isUnchanged = lastSteps_ == activity.steps && activity.isWaiting;
  lastSteps_ = activity.steps;
  if (!isUnchanged) open();
  const bool isFull = messages_ > 0 && messages_ >= capacity_;
  if (isFull) fullTime_ += sinceLastLook;
}

void QueueFill::open() {
  const QueueStatus status(queue_);
  const bool isSound = status.condition() == QueueStatus::Condition::Sound;
  messages_ = isSound ? status.messages() : 0;
  if (isSound) capacity_ = status.limits().messages;
}

}  // namespace korvexd
