#include "queues/StaleQueue.h"

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "korvex/receiver/SystemError.h"
#include "queue/MessageQueue.h"
#include "queues/QueueObject.h"

namespace korvex::receiver {
namespace {

constexpr std::chrono::milliseconds kClaimPatience{250};
constexpr std::chrono::milliseconds kClaimPeriod{5};

const char* kindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "a folder";
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISFIFO(mode)) return "a pipe";
  if (S_ISSOCK(mode)) return "a socket";
  return "a device";
}

[[noreturn]] void throwNotRemoved(const std::string& name, const std::string& found) {
  throw std::runtime_error("queue " + name + " cannot be removed: found " + found +
                           ", expected a queue that a daemon left");
}

/// A daemon leaves only regular files of its own user. Anything else was put there for a reason
/// that only a person can know.
void refuseForeign(const std::string& name) {
  struct stat found = {};
  if (!QueueObject::look(name, found)) return;
  if (!S_ISREG(found.st_mode)) throwNotRemoved(name, kindOf(found.st_mode));
  if (found.st_uid != ::geteuid()) {
    throw std::runtime_error("queue " + name + " cannot be removed: found one of user " +
                             std::to_string(found.st_uid) + ", expected one of user " +
                             std::to_string(::geteuid()));
  }
}

/// When a daemon is killed while it starts an engine, the new process keeps the claim until it
/// executes its program: a few milliseconds, more on a busy machine.
bool isClaimedSoon(const QueueObject& object) noexcept {
  const auto deadline = std::chrono::steady_clock::now() + kClaimPatience;
  while (!object.claim()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kClaimPeriod);
  }
  return true;
}

}  // namespace

StaleQueue::StaleQueue(std::string name) : name_(std::move(name)) {
  refuseForeign(name_);
  claim_ = QueueObject(name_);
  if (!claim_.isOpen()) {
    if (errno == ENOENT) return;
    throw SystemError("opening the existing queue " + name_, errno);
  }
  if (!isClaimedSoon(claim_)) {
    throw std::runtime_error("queue " + name_ + " is served by another daemon");
  }
  // Between the opening and the claim another daemon may have put its own queue there.
  if (!claim_.isNamed(name_))
    throw std::runtime_error("queue " + name_ + " was just replaced by another daemon");
  if (!QueueView::canBeQueue(claim_.descriptor())) throwNotRemoved(name_, "another file");
}

bool StaleQueue::remove() {
  if (!claim_.isOpen()) return false;
  if (MessageQueue::remove(name_)) return true;
  throw SystemError("removing the existing queue " + name_, errno);
}

}  // namespace korvex::receiver
