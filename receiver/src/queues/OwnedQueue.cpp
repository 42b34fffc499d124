#include "queues/OwnedQueue.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "korvex/receiver/SystemError.h"
#include "queues/BusErrorGuard.h"
#include "queues/Leftovers.h"
#include "queues/QueueObject.h"

namespace korvex::receiver {
namespace {

constexpr mode_t kOwnersOnly = 0600;
constexpr const char* kOverwritten = "their memory was overwritten";

/// The queue library's text names neither the queue nor the memory that it needs.
[[noreturn]] void throwNotCreated(const std::string& name, Limits limits, int error) {
  throw SystemError("creating queue " + name + ", which needs " +
                        std::to_string(QueueView::fileSize(limits.messages, limits.messageSize)) +
                        " bytes of shared memory in /dev/shm",
                    error);
}

}  // namespace

OwnedQueue::OwnedQueue(std::string name, Limits limits, const Access& access)
    : name_(std::move(name)), limits_(limits), presentName_(temporaryQueueName()) {
  create(access.group ? kOwnersOnly : access.mode);
  try {
    claim();
    if (access.group) giveTo(*access.group, access.mode);
  } catch (...) {
    MessageQueue::remove(presentName_);
    throw;
  }
}

void OwnedQueue::claim() {
  object_ = QueueObject(presentName_);
  if (!object_.isOpen() || !object_.claim()) throw SystemError("claiming queue " + name_, errno);
}

/// The mode comes last: until then it would hold for the process's own group.
void OwnedQueue::giveTo(gid_t group, mode_t mode) {
  constexpr auto kSameOwner = static_cast<uid_t>(-1);
  if (::fchown(object_.descriptor(), kSameOwner, group) != 0 ||
      ::fchmod(object_.descriptor(), mode) != 0) {
    throw SystemError("giving queue " + name_ + " to group " + std::to_string(group), errno);
  }
}

void OwnedQueue::create(mode_t mode) {
  const MessageQueue::Limits limits{limits_.messages, limits_.messageSize};
  try {
    // Memory that was free a moment ago may be gone when it is touched.
    surviveBusError([&] {
      queue_ = std::make_unique<MessageQueue>(presentName_, limits, mode);
      lockKind_ = queue_->view().lockKind();
    });
  } catch (const MemoryLost&) {
    MessageQueue::remove(presentName_);
    throwNotCreated(name_, limits_, ENOSPC);
  } catch (const std::exception& error) {
    const int systemError = MessageQueue::systemErrorOf(error);
    if (systemError == 0) throw;
    throwNotCreated(name_, limits_, systemError);
  }
}

OwnedQueue::~OwnedQueue() { removeName(); }

void OwnedQueue::removeName() noexcept {
  if (isStillNamed()) MessageQueue::remove(presentName_);
}

/// Once it has the name, nothing may fail: the destructor has to know under which name it removes
/// the object.
void OwnedQueue::publish() {
  std::string name = name_;
  QueueObject::rename(presentName_, name_, "publishing queue " + name_);
  presentName_.swap(name);
}

/// Runs an operation that takes the lock, and records its outcome.
template <typename Operation>
OwnedQueue::Outcome OwnedQueue::noted(Operation operation) {
  return surviveBusError([&] {
    if (isLockOverwritten()) throw LockLost(kOverwritten);
    const Outcome outcome = operation(*queue_);
    lockWatch_.note(outcome, queue_->view(), LockWatch::Clock::now());
    return outcome;
  });
}

OwnedQueue::Outcome OwnedQueue::receive(void* buffer, std::size_t capacity, std::size_t& size) {
  return noted([&](MessageQueue& queue) { return queue.tryReceiveNext(buffer, capacity, size); });
}

OwnedQueue::Outcome OwnedQueue::send(const void* data, std::size_t size, unsigned priority) {
  return noted([&](MessageQueue& queue) { return queue.trySend(data, size, priority); });
}

void OwnedQueue::checkLock() {
  if (looksLocked()) noted([](MessageQueue& queue) { return queue.tryLock(); });
}

std::size_t OwnedQueue::messages() {
  // A peer may have overwritten the number.
  return surviveBusError([this] { return std::min(queue_->view().messages(), limits_.messages); });
}

bool OwnedQueue::looksLocked() {
  return surviveBusError([this] { return queue_->view().looksLocked(); });
}

std::string OwnedQueue::defect() {
  off_t size = 0;
  if (!object_.isNamed(presentName_, &size)) return "they were removed or replaced";
  if (static_cast<std::size_t>(size) != QueueView::fileSize(limits_.messages, limits_.messageSize))
    return "their size was changed";
  const bool isDamaged =
      surviveBusError([this] { return isLockOverwritten() || queue_->view().isDamaged(); });
  return isDamaged ? kOverwritten : "";
}

bool OwnedQueue::isLockOverwritten() const noexcept {
  return queue_->view().lockKind() != lockKind_;
}

bool OwnedQueue::isStillNamed() const noexcept { return object_.isNamed(presentName_); }

}  // namespace korvex::receiver
