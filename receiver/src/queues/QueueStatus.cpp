#include "korvex/receiver/QueueStatus.h"

#include "queue/QueueView.h"

namespace korvex::receiver {

struct QueueStatus::View {
  std::string name;
  QueueView queue;
};

QueueStatus::QueueStatus(const std::string& name)
    : view_(std::make_unique<View>(View{name, QueueView(name)})) {}

QueueStatus::~QueueStatus() = default;

QueueStatus::QueueStatus(QueueStatus&&) noexcept = default;

QueueStatus& QueueStatus::operator=(QueueStatus&&) noexcept = default;

QueueStatus::Condition QueueStatus::condition() const noexcept {
  switch (view_->queue.state()) {
    case QueueView::State::Unreachable:
      return Condition::Unreachable;
    case QueueView::State::Unfinished:
      return Condition::Unfinished;
    case QueueView::State::Damaged:
      return Condition::Damaged;
    case QueueView::State::Busy:
      return Condition::Busy;
    case QueueView::State::Sound:
      break;
  }
  return Condition::Sound;
}

int QueueStatus::systemError() const noexcept { return view_->queue.systemError(); }

Limits QueueStatus::limits() const noexcept {
  return {view_->queue.maxMessages(), view_->queue.maxMessageSize()};
}

bool QueueStatus::isStillNamed() const noexcept { return view_->queue.isStillNamed(view_->name); }

std::size_t QueueStatus::messages() const noexcept { return view_->queue.messages(); }

bool QueueStatus::looksLocked() const noexcept { return view_->queue.looksLocked(); }

pid_t QueueStatus::lockOwner() const noexcept { return view_->queue.lockOwner(); }

}  // namespace korvex::receiver
