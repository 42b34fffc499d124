#include "korvexd/StaleQueue.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "korvexd/QueueClaim.h"
#include "korvexd/SystemError.h"
#include "shm/MessageQueue.h"

namespace korvexd {
namespace {

const char* kindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "a folder";
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISFIFO(mode)) return "a pipe";
  if (S_ISSOCK(mode)) return "a socket";
  return "a device";
}

[[noreturn]] void throwNotReplaced(const std::string& name, const std::string& found) {
  throw std::runtime_error("queue " + name + " cannot be replaced: found " + found +
                           ", expected a queue that a daemon left");
}

/// A daemon leaves files of its own user behind. Anything else was put there by somebody, for a
/// reason that only a person can know.
void refuseForeign(const std::string& name) {
  struct stat found = {};
  if (!lookAtQueueObject(name, found)) return;
  if (!S_ISREG(found.st_mode)) throwNotReplaced(name, kindOf(found.st_mode));
  if (found.st_uid != ::geteuid()) {
    throw std::runtime_error("queue " + name + " cannot be replaced: found one of user " +
                             std::to_string(found.st_uid) + ", expected one of user " +
                             std::to_string(::geteuid()));
  }
}

}  // namespace

StaleQueue::StaleQueue(std::string name) : name_(std::move(name)) {
  refuseForeign(name_);
  claim_ = openQueueObject(name_);
  if (claim_.descriptor() < 0) {
    if (errno == ENOENT) return;
    throw SystemError("opening the existing queue " + name_, errno);
  }
  if (!claimQueueObject(claim_))
    throw std::runtime_error("queue " + name_ + " is served by another daemon");
  // Between the opening and the claim another daemon may have put its own queue there.
  if (!isQueueObjectNamed(claim_, name_))
    throw std::runtime_error("queue " + name_ + " was just replaced by another daemon");
  if (!korvex::QueueView::canBeQueue(claim_.descriptor())) throwNotReplaced(name_, "another file");
}

void StaleQueue::remove() {
  if (claim_.descriptor() < 0 || korvex::MessageQueue::remove(name_)) return;
  throw SystemError("removing the existing queue " + name_, errno);
}

}  // namespace korvexd
