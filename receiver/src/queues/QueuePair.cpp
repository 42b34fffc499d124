#include "queues/QueuePair.h"

#include <korvex/ShmWriter.h>

#include <stdexcept>

#include "queues/Leftovers.h"
#include "queues/QueueObject.h"
#include "stream/Reply.h"

namespace korvex::receiver {
namespace {

/// More than one stream gets: a producer takes a reply with each batch that it sends.
constexpr Limits kReplyLimits{16, sizeof(Reply)};

void refuseExisting(const std::string& name) {
  if (!QueueObject::exists(name)) return;
  throw std::runtime_error("queue " + name +
                           " exists already; --replace removes the queues of a dead daemon");
}

/// The name of the response queue. Both names are checked before anything is made: a daemon that
/// waits for its names retries again and again.
std::string responseNameIfFree(const std::string& name, Receiver::Existing existing) {
  std::string replies = getMessageQueueResponseName(name);
  if (existing == Receiver::Existing::Refuse) {
    refuseExisting(name);
    refuseExisting(replies);
  }
  return replies;
}

}  // namespace

QueuePair::QueuePair(const std::string& name, Limits limits, mode_t mode,
                     Receiver::Existing existing)
    : replies_(responseNameIfFree(name, existing), kReplyLimits, mode),
      batches_(name, limits, mode) {
  if (existing == Receiver::Existing::Replace) removeDeadPair(name);
  replies_.publish();
  batches_.publish();
}

}  // namespace korvex::receiver
