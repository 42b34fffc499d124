#include "queues/OwnedQueue.h"

#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <utility>

#include "queues/BusErrorGuard.h"
#include "queues/QueueObject.h"
#include "korvex/receiver/SystemError.h"
#include "queues/Leftovers.h"

namespace korvex::receiver {
namespace {

/// The queue library's words alone would name neither the queue nor what it needs.
[[noreturn]] void throwNotCreated(const std::string& name, Limits limits, int error) {
  throw SystemError(
      "creating queue " + name + ", which needs " +
          std::to_string(QueueView::fileSize(limits.messages, limits.messageSize)) +
          " bytes of shared memory in /dev/shm",
      error);
}

}  // namespace

OwnedQueue::OwnedQueue(std::string name, Limits limits, mode_t mode)
    : name_(std::move(name)), presentName_(temporaryQueueName()) {
  create(limits, mode);
  claim_ = QueueObject(presentName_);
  if (!claim_.isOpen() || !claim_.claim()) {
    const int error = errno;
    MessageQueue::remove(presentName_);
    throw SystemError("claiming queue " + name_, error);
  }
}

void OwnedQueue::create(Limits limits, mode_t mode) {
  try {
    // What was free a moment ago may be gone when it is touched.
    surviveCut([&] { queue_ = std::make_unique<MessageQueue>(
        presentName_, MessageQueue::Limits{limits.messages, limits.messageSize}, mode); });
  } catch (const QueueCut&) {
    MessageQueue::remove(presentName_);
    throwNotCreated(name_, limits, ENOSPC);
  } catch (const boost::interprocess::interprocess_exception& error) {
    if (error.get_native_error() == 0) throw;
    throwNotCreated(name_, limits, error.get_native_error());
  }
}

OwnedQueue::~OwnedQueue() {
  if (isStillNamed()) MessageQueue::remove(presentName_);
}

bool OwnedQueue::isStillNamed() const noexcept { return claim_.isNamed(presentName_); }

bool OwnedQueue::isWhole() const noexcept {
  return static_cast<std::size_t>(claim_.size()) ==
         QueueView::fileSize(view().maxMessages(), view().maxMessageSize());
}

void OwnedQueue::publish() {
  QueueObject::rename(presentName_, name_, "publishing queue " + name_);
  presentName_ = name_;
}

}  // namespace korvex::receiver
