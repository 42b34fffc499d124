#include "korvexd/StaleQueue.h"

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "korvexd/QueueClaim.h"
#include "korvexd/SystemError.h"
#include "shm/MessageQueue.h"

namespace korvexd {

StaleQueue::StaleQueue(std::string name) : name_(std::move(name)), claim_(openQueueObject(name_)) {
  if (claim_.descriptor() < 0) {
    if (errno == ENOENT) return;
    throw SystemError("opening the existing queue " + name_, errno);
  }
  if (!claimQueueObject(claim_))
    throw std::runtime_error("queue " + name_ + " is served by another daemon");
  // Between the opening and the claim another daemon may have put its own queue there.
  if (!isQueueObjectNamed(claim_, name_))
    throw std::runtime_error("queue " + name_ + " was just replaced by another daemon");
}

void StaleQueue::remove() {
  if (claim_.descriptor() >= 0) korvex::MessageQueue::remove(name_);
}

}  // namespace korvexd
