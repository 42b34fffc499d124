#include "korvexd/metrics/QueueFill.h"

#include <korvex/receiver/QueueStatus.h>
#include <utility>

namespace korvexd {

using korvex::receiver::QueueStatus;

void QueueFill::look(Clock::time_point now) {
  const Clock::duration sinceLastLook = now - std::exchange(lastLook_, now);
  const QueueStatus status(queue_);
  const bool isSound = status.condition() == QueueStatus::Condition::Sound;
  messages_ = isSound ? status.messages() : 0;
  if (!isSound) return;
  capacity_ = status.limits().messages;
  if (messages_ >= capacity_) fullTime_ += sinceLastLook;
}

}  // namespace korvexd
