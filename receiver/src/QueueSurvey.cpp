#include "korvex/receiver/QueueSurvey.h"

#include <cstdio>
#include <fstream>
#include <korvex/ShmWriter.h>
#include <set>
#include <sys/sysmacros.h>

#include "queue/LockOwner.h"
#include "queues/Leftovers.h"
#include "queues/QueueObject.h"

namespace korvex::receiver {
namespace {

/// The name of the pair that an object belongs to. A name that ends in "Response" is a response
/// queue's, unless it has a response queue itself and there is no queue that it responds for.
std::string pairOf(const std::string& name, const std::set<std::string>& names) {
  const std::string ending = getMessageQueueResponseName("");
  const bool hasEnding = name.size() > ending.size() &&
                         name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
  if (!hasEnding) return name;
  const std::string batches = name.substr(0, name.size() - ending.size());
  const bool isPair = names.count(batches) == 0 && names.count(name + ending) != 0;
  return isPair ? name : batches;
}

using Condition = QueueStatus::Condition;

bool isQueue(Condition condition) {
  return condition == Condition::Sound || condition == Condition::Busy;
}

/// Two names that fit are a pair even when the queues are half made, or another user's; but what
/// can be read and is neither a queue nor half of one belongs to another program.
bool isPair(const std::string& batches, const std::string& replies) {
  return QueueStatus(batches).condition() != Condition::Damaged ||
         QueueStatus(replies).condition() != Condition::Damaged;
}

/// A line of the system's table. False unless it is a lock of the kind that daemons hold.
bool readClaim(const std::string& line, std::pair<dev_t, ino_t>& file, pid_t& process) {
  unsigned major = 0;
  unsigned minor = 0;
  unsigned long inode = 0;
  const int found = std::sscanf(line.c_str(), "%*d: FLOCK ADVISORY WRITE %d %x:%x:%lu", &process,
                                &major, &minor, &inode);
  file = {::gnu_dev_makedev(major, minor), inode};
  return found == 4;
}

}  // namespace

std::vector<std::string> pairNames() {
  const std::vector<std::string> list = QueueObject::names();
  const std::set<std::string> names(list.begin(), list.end());
  std::set<std::string> pairs;
  for (const std::string& name : names) {
    const std::string pair = pairOf(name, names);
    if (pairs.count(pair) != 0 || isTemporaryQueueName(name)) continue;
    const std::string replies = getMessageQueueResponseName(pair);
    const bool isWhole = names.count(pair) != 0 && names.count(replies) != 0;
    if (isWhole ? isPair(pair, replies) : isQueue(QueueStatus(name).condition())) {
      pairs.insert(pair);
    }
  }
  return {pairs.begin(), pairs.end()};
}

ServingProcesses::ServingProcesses() {
  std::ifstream table("/proc/locks");
  isWhole_ = table.is_open() && isInInitialPidNamespace();
  for (std::string line; std::getline(table, line);) {
    std::pair<dev_t, ino_t> file;
    pid_t process = 0;
    if (readClaim(line, file, process)) claims_[file] = process;
  }
  isWhole_ = isWhole_ && !table.bad();
}

std::optional<pid_t> ServingProcesses::of(const QueueStatus::Object& queue) const noexcept {
  const auto claim = claims_.find({queue.device, queue.inode});
  if (claim != claims_.end()) return claim->second;
  return isWhole_ ? std::make_optional(pid_t{0}) : std::nullopt;
}

}  // namespace korvex::receiver
