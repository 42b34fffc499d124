#include "korvex/receiver/QueueStatus.h"

#include "queue/QueueView.h"
#include "queues/BusErrorGuard.h"
#include "queues/QueueObject.h"

namespace korvex::receiver {
namespace {

QueueStatus::Object objectAt(const std::string& name) noexcept {
  struct stat found = {};
  if (!QueueObject::look(name, found)) return {};
  return {found.st_dev, found.st_ino, found.st_uid, found.st_gid, found.st_mode, found.st_size};
}

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
  Object object;
  QueueView queue;
};

QueueStatus::QueueStatus(const std::string& name)
    : view_(std::make_unique<View>(View{name, objectAt(name), QueueView(name)})) {}

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

const QueueStatus::Object& QueueStatus::object() const noexcept { return view_->object; }

Limits QueueStatus::limits() const noexcept {
  return {view_->queue.maxMessages(), view_->queue.maxMessageSize()};
}

bool QueueStatus::isStillNamed() const noexcept {
  return view_->queue.isStillNamed(view_->name) && objectAt(view_->name).size >= view_->object.size;
}

std::size_t QueueStatus::messages() const noexcept {
  return lookOrZero([this] { return view_->queue.messages(); });
}

std::uint64_t QueueStatus::waitingBytes() const noexcept {
  return lookOrZero([this] { return view_->queue.waitingBytes(); });
}

bool QueueStatus::looksLocked() const noexcept {
  return lookOrZero([this] { return view_->queue.looksLocked(); });
}

pid_t QueueStatus::lockOwner() const noexcept {
  return lookOrZero([this] { return view_->queue.lockOwner(); });
}

bool QueueStatus::isLockOwnerGone() const noexcept {
  return lookOrZero([this] { return view_->queue.isLockOwnerGone(); });
}

}  // namespace korvex::receiver
