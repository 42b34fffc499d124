#include "queues/QueuePair.h"

#include <korvex/ShmWriter.h>
#include <stdexcept>
#include <unistd.h>

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

/// The system gives whole pages.
std::uint64_t pagesFor(const Limits& limits) noexcept {
  const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  const std::uint64_t size = QueueView::fileSize(limits.messages, limits.messageSize);
  return (size + page - 1) / page * page;
}

}  // namespace

std::uint64_t sharedMemoryFor(const Limits& limits) noexcept {
  const std::uint64_t batches = pagesFor(limits);
  return batches == 0 ? 0 : batches + pagesFor(kReplyLimits);
}

QueuePair::QueuePair(const Receiver::Settings& settings, Receiver::Existing existing)
    : replies_(responseNameIfFree(settings.queue, existing), kReplyLimits,
               {settings.mode, settings.group}),
      batches_(settings.queue, settings.limits, {settings.mode, settings.group}) {
  if (existing == Receiver::Existing::Replace) removeDeadPair(settings.queue);
  replies_.publish();
  batches_.publish();
}

bool QueuePair::isMadeAlike(const Receiver::Settings& one,
                            const Receiver::Settings& other) noexcept {
  return one.limits.messages == other.limits.messages &&
         one.limits.messageSize == other.limits.messageSize && one.mode == other.mode &&
         one.group == other.group;
}

}  // namespace korvex::receiver
