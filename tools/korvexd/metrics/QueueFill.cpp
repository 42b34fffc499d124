#include "korvexd/metrics/QueueFill.h"

#include <utility>

namespace korvexd {

using korvex::receiver::QueueStatus;

void QueueFill::look(Clock::time_point now) {
  const Clock::duration sinceLastLook = now - std::exchange(lastLook_, now);
  if (!status_ || !status_->isStillNamed()) findQueue();
  messages_ = status_ ? status_->messages() : 0;
  if (status_ && messages_ >= capacity_) fullTime_ += sinceLastLook;
}

/// It may have been replaced, or be lost just now.
void QueueFill::findQueue() {
  status_.emplace(queue_);
  if (status_->condition() == QueueStatus::Condition::Sound) {
    capacity_ = status_->limits().messages;
  } else {
    status_.reset();
  }
}

}  // namespace korvexd
