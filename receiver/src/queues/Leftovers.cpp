#include "queues/Leftovers.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <random>
#include <string_view>

#include "queues/QueueObject.h"

namespace korvex::receiver {
namespace {

constexpr std::string_view kStart = ".korvexd-";

/// The PID namespace of this process; 0 if unknown.
ino_t processNamespace() noexcept {
  struct stat found = {};
  return ::stat("/proc/self/ns/pid", &found) == 0 ? found.st_ino : 0;
}

bool isAlive(pid_t process) noexcept { return ::kill(process, 0) == 0 || errno != ESRCH; }

/// Whether this is a temporary name that a dead daemon of this namespace gave. False if the
/// namespace is unknown: a process id that is free here may be a living daemon's elsewhere.
bool isLeftOver(const std::string& name) {
  const ino_t here = processNamespace();
  if (here == 0 || name.compare(0, kStart.size(), kStart) != 0) return false;
  char* end = nullptr;
  const long process = std::strtol(name.c_str() + kStart.size(), &end, 10);
  if (process <= 0 || process > std::numeric_limits<pid_t>::max()) return false;
  const std::string place = "-" + std::to_string(here) + "-";
  return std::string(end).compare(0, place.size(), place) == 0 &&
         !isAlive(static_cast<pid_t>(process));
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

std::vector<std::string> removeHalfMadeQueues() {
  std::vector<std::string> removed;
  for (const std::string& name : QueueObject::names()) {
    if (isLeftOver(name) && isOwnFile(name) && ::shm_unlink(name.c_str()) == 0) {
      removed.push_back(name);
    }
  }
  return removed;
}

}  // namespace korvex::receiver
