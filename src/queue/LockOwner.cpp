#include "queue/LockOwner.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "queue/NoCancellation.h"

namespace korvex {
namespace {

/// The inode of the initial PID namespace, fixed by the kernel. Every thread has an id there.
constexpr ino_t kInitialNamespace = 0xEFFFFFFC;

constexpr char kZombie = 'Z';
constexpr char kDead = 'X';
constexpr int kDecimal = 10;

/// The fields read from /proc/.../status come after the list of groups; this leaves room for more
/// than a thousand. A process in more groups than that cannot be judged.
constexpr std::size_t kStatusSize = std::size_t{16} * 1024;

/// Reads the start of a /proc file. False, with the reason in errno, if nothing was read.
template <std::size_t Size>
bool readFile(const char* path, char (&text)[Size]) noexcept {
  const int file = ::open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  errno = 0;
  const ssize_t size = ::read(file, text, Size - 1);
  ::close(file);
  text[size > 0 ? size : 0] = '\0';
  return size > 0;
}

/// The letter of a thread's state; 0 if it cannot be read.
char stateHere(pid_t thread) noexcept {
  char path[32];
  char text[128];
  std::snprintf(path, sizeof path, "/proc/%d/stat", thread);
  if (!readFile(path, text)) return '\0';
  // "pid (name) state ...", and the name may hold anything, even parentheses.
  const char* const nameEnd = std::strrchr(text, ')');
  return nameEnd != nullptr && nameEnd[1] == ' ' ? nameEnd[2] : '\0';
}

bool isOver(char state) noexcept { return state == kZombie || state == kDead; }

/// A killed process stays a zombie until its parent reaps it, but its locks are already lost.
bool livesHere(pid_t thread) noexcept {
  if (::kill(thread, 0) != 0 && errno == ESRCH) return false;
  return !isOver(stateHere(thread));
}

/// What /proc says of a thread in any PID namespace.
class Status {
 public:
  enum class Reading { Done, ThreadEnded, Refused };

  /// `folder` is the thread's folder in /proc.
  Reading read(const char* folder) noexcept {
    char path[80];
    std::snprintf(path, sizeof path, "%s/status", folder);
    if (!readFile(path, text_)) {
      return errno == ENOENT || errno == ESRCH ? Reading::ThreadEnded : Reading::Refused;
    }
    ids_ = field("\nNSpid:\t");
    state_ = field("\nState:\t");
    const bool isWhole = state_ != nullptr && ids_ != nullptr && std::strchr(ids_, '\n') != nullptr;
    return isWhole ? Reading::Done : Reading::Refused;
  }

  bool isAlive() const noexcept { return !isOver(*state_); }

  /// Whether the thread lives in a nested PID namespace: it then has more than one id.
  bool isForeign() const noexcept { return std::strcspn(ids_, "\t") < std::strcspn(ids_, "\n"); }

  /// The id in the thread's own namespace, the last one on the line, whose end was seen.
  pid_t ownId() const noexcept {
    const char* last = ids_;
    for (const char* at = ids_; *at != '\n'; ++at) {
      if (*at == '\t') last = at + 1;
    }
    return static_cast<pid_t>(std::strtol(last, nullptr, kDecimal));
  }

 private:
  const char* field(const char* name) const noexcept {
    const char* const at = std::strstr(text_, name);
    return at == nullptr ? nullptr : at + std::strlen(name);
  }

  char text_[kStatusSize];
  const char* ids_ = nullptr;
  const char* state_ = nullptr;
};

struct CloseFolder {
  void operator()(DIR* folder) const noexcept { ::closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

/// Calls `look` for each entry of a folder that is a number. False as soon as `look` returns false,
/// or if the folder cannot be read to its end.
template <typename Look>
bool everyNumberIn(const char* path, Look look) noexcept {
  const Folder folder(::opendir(path));
  if (folder == nullptr) return errno == ENOENT;  // a process that has just ended
  for (;;) {
    errno = 0;
    const dirent* const entry = ::readdir(folder.get());
    if (entry == nullptr) return errno == 0 || errno == ENOENT || errno == ESRCH;
    const long number = std::strtol(entry->d_name, nullptr, kDecimal);
    if (number > 0 && !look(number)) return false;
  }
}

/// Whether no living thread of this process has the id. Threads of a process share a namespace; a
/// process in ours needs no scan, because livesHere() has already checked the id here.
bool isNoThreadOf(long process, pid_t id) noexcept {
  char folder[32];
  std::snprintf(folder, sizeof folder, "/proc/%ld", process);
  Status status;
  const auto reading = status.read(folder);
  if (reading != Status::Reading::Done) return reading == Status::Reading::ThreadEnded;
  if (!status.isForeign()) return true;
  std::snprintf(folder, sizeof folder, "/proc/%ld/task", process);
  return everyNumberIn(folder, [&](long thread) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%ld/task/%ld", process, thread);
    const auto found = status.read(path);
    if (found != Status::Reading::Done) return found == Status::Reading::ThreadEnded;
    return !status.isAlive() || status.ownId() != id;
  });
}

/// To all users but root, process 1 is another user's: a /proc that hides any process hides it.
bool seesEveryProcess() noexcept {
  Status first;
  return isInInitialPidNamespace() && first.read("/proc/1") == Status::Reading::Done;
}

}  // namespace

bool isInInitialPidNamespace() noexcept {
  struct stat found = {};
  return ::stat("/proc/self/ns/pid", &found) == 0 && found.st_ino == kInitialNamespace;
}

bool isLockOwnerGone(pid_t thread) noexcept {
  const NoCancellation noCancellation;
  if (livesHere(thread) || !seesEveryProcess()) return false;
  return everyNumberIn("/proc", [thread](long process) { return isNoThreadOf(process, thread); });
}

}  // namespace korvex
