#include "queues/OwnedQueue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <utility>

#include "queues/BusErrorGuard.h"
#include "queues/QueueObject.h"
#include "korvex/receiver/SystemError.h"
#include "queues/Leftovers.h"

namespace korvexd {
namespace {

using korvex::MessageQueue;

const std::string kSharedMemoryFolder = "/dev/shm/";

/// The queue library's words alone would name neither the queue nor what it needs.
[[noreturn]] void throwNotCreated(const std::string& name, MessageQueue::Limits limits, int error) {
  throw SystemError(
      "creating queue " + name + ", which needs " +
          std::to_string(korvex::QueueView::fileSize(limits.messages, limits.messageSize)) +
          " bytes of shared memory in /dev/shm",
      error);
}

}  // namespace

OwnedQueue::OwnedQueue(std::string name, MessageQueue::Limits limits, mode_t mode)
    : name_(std::move(name)), presentName_(temporaryQueueName()) {
  create(limits, mode);
  claim_ = openQueueObject(presentName_);
  if (claim_.descriptor() < 0 || !claimQueueObject(claim_)) {
    const int error = errno;
    MessageQueue::remove(presentName_);
    throw SystemError("claiming queue " + name_, error);
  }
}

void OwnedQueue::create(MessageQueue::Limits limits, mode_t mode) {
  try {
    // What was free a moment ago may be gone when it is touched.
    surviveCut([&] { queue_ = std::make_unique<MessageQueue>(presentName_, limits, mode); });
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

bool OwnedQueue::isStillNamed() const noexcept { return isQueueObjectNamed(claim_, presentName_); }

bool OwnedQueue::isWhole() const noexcept {
  struct stat found = {};
  return ::fstat(claim_.descriptor(), &found) == 0 &&
         static_cast<std::size_t>(found.st_size) ==
             korvex::QueueView::fileSize(view().maxMessages(), view().maxMessageSize());
}

void OwnedQueue::publish() {
  renameWithoutReplacing(AT_FDCWD, kSharedMemoryFolder + presentName_, kSharedMemoryFolder + name_,
                         "publishing queue " + name_);
  presentName_ = name_;
}

}  // namespace korvexd
