#include "korvex/receiver/QueueStatus.h"

#include "queue/QueueView.h"
#include "queues/BusErrorGuard.h"

namespace korvex::receiver {
namespace {

/// A look at memory that may have been cut away; 0 then.
template <typename Look>
auto lookOrZero(Look look) noexcept -> decltype(look()) {
  try {
    return surviveBusError(look);
  } catch (const MemoryLost&) {
    return {};
  }
}

}  // namespace

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

std::size_t QueueStatus::messages() const noexcept {
  return lookOrZero([this] { return view_->queue.messages(); });
}

bool QueueStatus::looksLocked() const noexcept {
  return lookOrZero([this] { return view_->queue.looksLocked(); });
}

pid_t QueueStatus::lockOwner() const noexcept {
  return lookOrZero([this] { return view_->queue.lockOwner(); });
}

}  // namespace korvex::receiver
