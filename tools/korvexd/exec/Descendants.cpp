#include "korvexd/exec/Descendants.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <korvex/receiver/SystemError.h>
#include <map>
#include <memory>
#include <signal.h>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "korvexd/os/File.h"

namespace korvexd {

namespace receiver = korvex::receiver;
namespace {

constexpr int kMostRounds = 100;  // for those that cannot be stopped, because they hang in a call
constexpr timespec kPause{0, 1000000};
constexpr std::size_t kMostOfStat = 512;  // what is looked at comes first

struct Process {
  pid_t parent = 0;  ///< 0 when it is gone
  char state = 'X';
};

using Processes = std::map<pid_t, Process>;

bool operator==(const Process& left, const Process& right) {
  return left.parent == right.parent && left.state == right.state;
}

/// The process is gone, or another user's and hidden. Any other error says nothing about the
/// process: running out of descriptors must not make one look gone.
bool isNotThere(int error) {
  return error == ENOENT || error == ESRCH || error == EACCES || error == EPERM;
}

/// Empty when it is not there. Throws SystemError when the system does not tell.
std::string statOf(const std::string& process) {
  const std::string name = "/proc/" + process + "/stat";
  std::array<char, kMostOfStat> text;
  const File file(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
  const ssize_t size =
      file.descriptor() < 0 ? -1 : ::read(file.descriptor(), text.data(), text.size());
  if (size >= 0) return {text.data(), static_cast<std::size_t>(size)};
  if (isNotThere(errno)) return "";
  throw receiver::SystemError("reading " + name, errno);
}

/// "PID (NAME) STATE PARENT ...", and the name may hold brackets and blanks of its own.
Process lookAt(const std::string& process) {
  const std::string text = statOf(process);
  const std::size_t name = text.rfind(") ");
  const std::size_t state = name + 2;
  if (name == std::string::npos || state + 2 >= text.size()) return {};
  const long parent = std::strtol(text.c_str() + state + 2, nullptr, 10);
  return {static_cast<pid_t>(parent), text[state]};
}

bool isProcess(const char* name) { return *name >= '1' && *name <= '9'; }

/// None at the end. A list that broke off would let living processes look gone.
const char* nextNameIn(DIR* folder) {
  errno = 0;
  const dirent* const entry = ::readdir(folder);
  if (entry != nullptr) return entry->d_name;
  if (errno != 0) throw receiver::SystemError("reading /proc", errno);
  return nullptr;
}

Processes allProcesses() {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc"), ::closedir);
  if (folder == nullptr) throw receiver::SystemError("opening /proc", errno);
  Processes all;
  while (const char* const name = nextNameIn(folder.get())) {
    if (!isProcess(name)) continue;
    const auto id = static_cast<pid_t>(std::strtol(name, nullptr, 10));
    all[id] = lookAt(name);
  }
  return all;
}

void addDescendants(const Processes& all, pid_t ancestor, const std::set<pid_t>& spared,
                    Processes& found) {
  for (const auto& [id, process] : all) {
    if (process.parent != ancestor || spared.count(id) != 0) continue;
    found[id] = process;
    addDescendants(all, id, spared, found);
  }
}

Processes descendantsExcept(const std::set<pid_t>& spared) {
  Processes found;
  addDescendants(allProcesses(), ::getpid(), spared, found);
  return found;
}

/// To this very process: the descriptor keeps the signal from one that gets the same id later, and
/// one that already has it has another parent. Where the system knows no such descriptors, a child
/// cannot be mistaken, and its descendants hardly ever.
void signalTo(pid_t id, const Process& process, int number) {
  const File held(static_cast<int>(::syscall(SYS_pidfd_open, id, 0U)));
  if (held.descriptor() < 0) {
    if (errno == ENOSYS) ::kill(id, number);
    return;
  }
  if (lookAt(std::to_string(id)).parent != process.parent) return;
  ::syscall(SYS_pidfd_send_signal, held.descriptor(), number, nullptr, 0U);
}

bool isStill(const Process& process) {
  return std::string("TtZX").find(process.state) != std::string::npos;
}

/// Whether any was running. The signal takes effect when the process is next scheduled.
bool stopThoseThatMove(const Processes& processes) {
  bool doesMove = false;
  for (const auto& [id, process] : processes) {
    if (isStill(process)) continue;
    doesMove = true;
    signalTo(id, process, SIGSTOP);
  }
  return doesMove;
}

/// A process may fork between being listed and being stopped, so one pass is not enough.
Processes stoppedDescendantsExcept(const std::set<pid_t>& spared) {
  Processes before;
  for (int round = 0;; ++round) {
    Processes now = descendantsExcept(spared);
    const bool doesMove = stopThoseThatMove(now);
    if (now.empty() || round == kMostRounds || (!doesMove && now == before)) return now;
    before = std::move(now);
    if (doesMove) ::nanosleep(&kPause, nullptr);
  }
}

}  // namespace

void adoptDescendants() {
  if (::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
    throw receiver::SystemError("becoming the parent of orphaned processes", errno);
  }
}

std::set<pid_t> childrenOfThisProcess() {
  std::set<pid_t> children;
  for (const auto& [id, process] : allProcesses()) {
    if (process.parent == ::getpid()) children.insert(id);
  }
  return children;
}

std::set<pid_t> killDescendantsExcept(const std::set<pid_t>& spared) {
  std::set<pid_t> children;
  for (const auto& [id, process] : stoppedDescendantsExcept(spared)) {
    signalTo(id, process, SIGKILL);
    if (process.parent == ::getpid()) children.insert(id);
  }
  return children;
}

}  // namespace korvexd
