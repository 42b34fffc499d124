#include "queues/Leftovers.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <korvex/ShmWriter.h>
#include <limits>
#include <random>
#include <signal.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "queues/QueueObject.h"
#include "queues/StaleQueue.h"

namespace korvex::receiver {
namespace {

constexpr std::string_view kStart = ".korvexd-";

/// The PID namespace of this process; 0 if unknown.
ino_t processNamespace() noexcept {
  struct stat found = {};
  return ::stat("/proc/self/ns/pid", &found) == 0 ? found.st_ino : 0;
}

bool isAlive(pid_t process) noexcept { return ::kill(process, 0) == 0 || errno != ESRCH; }

/// What follows "PID" in the names that this namespace's processes give. Where namespaces cannot be
/// told apart, a process id that is free here may be a living daemon's elsewhere.
std::string ownEnding() {
  const ino_t here = processNamespace();
  return here == 0 ? "" : "-" + std::to_string(here) + "-";
}

HalfMadeQueue halfMadeQueue(const std::string& name) {
  HalfMadeQueue queue{name, 0, HalfMadeQueue::Maker::Unknown};
  const std::string ending = ownEnding();
  char* end = nullptr;
  const long process = std::strtol(name.c_str() + kStart.size(), &end, 10);
  const bool isProcess = process > 0 && process <= std::numeric_limits<pid_t>::max();
  if (ending.empty() || !isProcess || std::string(end).rfind(ending, 0) != 0) return queue;
  queue.process = static_cast<pid_t>(process);
  queue.maker = isAlive(queue.process) ? HalfMadeQueue::Maker::Alive : HalfMadeQueue::Maker::Dead;
  return queue;
}

bool isOwnFile(const std::string& name) {
  struct stat found = {};
  return QueueObject::look(name, found) && S_ISREG(found.st_mode) && found.st_uid == ::geteuid();
}

}  // namespace

std::string temporaryQueueName() {
  std::random_device random;
  return std::string(kStart) + std::to_string(::getpid()) + "-" +
         std::to_string(processNamespace()) + "-" + std::to_string(random()) + "-" +
         std::to_string(random());
}

bool isTemporaryQueueName(const std::string& name) { return name.rfind(kStart, 0) == 0; }

std::vector<HalfMadeQueue> halfMadeQueues() {
  std::vector<HalfMadeQueue> found;
  for (const std::string& name : QueueObject::names()) {
    if (isTemporaryQueueName(name)) found.push_back(halfMadeQueue(name));
  }
  std::sort(found.begin(), found.end(),
            [](const auto& left, const auto& right) { return left.name < right.name; });
  return found;
}

std::vector<std::string> removeHalfMadeQueues() {
  std::vector<std::string> removed;
  for (const HalfMadeQueue& queue : halfMadeQueues()) {
    if (removeHalfMadeQueue(queue.name)) removed.push_back(queue.name);
  }
  return removed;
}

bool removeHalfMadeQueue(const std::string& name) {
  return isTemporaryQueueName(name) && halfMadeQueue(name).maker == HalfMadeQueue::Maker::Dead &&
         isOwnFile(name) && ::shm_unlink(name.c_str()) == 0;
}

std::vector<std::string> removeDeadPair(const std::string& name) {
  std::vector<std::string> removed;
  // Both are claimed before one is removed: a living daemon keeps its pair whole.
  StaleQueue batches(name);
  StaleQueue replies(getMessageQueueResponseName(name));
  if (batches.remove()) removed.push_back(name);
  if (replies.remove()) removed.push_back(getMessageQueueResponseName(name));
  return removed;
}

}  // namespace korvex::receiver
