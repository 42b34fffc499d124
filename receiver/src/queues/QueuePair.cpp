#include "queues/QueuePair.h"

#include <climits>
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

/// The name of the response queue. Both names are free before anything is made: a daemon that waits
/// for its names retries again and again, and memory may be too short for a dead daemon's pair and
/// the new one.
std::string freedResponseName(const std::string& name, Receiver::Existing existing) {
  const std::string defect = queueNameDefect(name);
  if (!defect.empty()) throw std::invalid_argument("queue name '" + name + "': " + defect);
  std::string replies = getMessageQueueResponseName(name);
  if (existing == Receiver::Existing::Replace) {
    removeDeadPair(name);
  } else {
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

std::string queueNameDefect(const std::string& name) {
  const std::string plain = name.substr(name.rfind('/', 0) == 0 ? 1 : 0);
  if (plain.empty()) return "it is empty";
  if (plain.find('/') != std::string::npos) {
    return "it holds a slash, which is allowed only as the first character";
  }
  if (plain.find('\0') != std::string::npos) return "it holds a NUL";
  if (plain == "." || plain == "..") return "it is the name of a folder";
  const std::size_t length = getMessageQueueResponseName(plain).size();
  if (length <= NAME_MAX) return "";
  return "its response queue's name would have " + std::to_string(length) +
         " characters, expected at most " + std::to_string(NAME_MAX);
}

std::uint64_t sharedMemoryFor(const Limits& limits) noexcept {
  const std::uint64_t batches = pagesFor(limits);
  return batches == 0 ? 0 : batches + pagesFor(kReplyLimits);
}

QueuePair::QueuePair(const Receiver::Settings& settings, Receiver::Existing existing)
    : replies_(freedResponseName(settings.queue, existing), kReplyLimits,
               {settings.mode, settings.group}),
      batches_(settings.queue, settings.limits, {settings.mode, settings.group}) {
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
