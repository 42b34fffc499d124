#include "send/ChildProcess.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <string_view>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "Failure.h"
#include "common/Printable.h"
#include "send/LookUntil.h"

namespace korvex::tool {
namespace {

constexpr std::chrono::seconds kDyingTime{1};  // from SIGKILL to the end, unless the kernel hangs

/// Whether there is such a program, though it may not be one that can be run.
bool isFound(const std::string& name) {
  if (name.find('/') != std::string::npos) return ::access(name.c_str(), F_OK) == 0;
  const char* const path = std::getenv("PATH");
  std::string_view folders = path == nullptr ? "" : path;
  while (!folders.empty()) {
    const std::string folder(folders.substr(0, folders.find(':')));
    std::string file = folder;
    if (!folder.empty()) file += '/';
    file += name;
    if (::access(file.c_str(), F_OK) == 0) return true;
    folders.remove_prefix(std::min(folders.size(), folder.size() + 1));
  }
  return false;
}

std::string hint(const std::string& name, int error) {
  if (error == ENOENT && isFound(name)) return "; the file exists, but its interpreter does not";
  if (error == ENOEXEC) return "; a script begins with a line like #!/bin/sh";
  return "";
}

[[noreturn]] void throwNotStarted(const std::string& name, int error) {
  throw Failure(static_cast<ov_status_t>(error),
                "the command '" + common::printable(name) + "' cannot be started: " +
                    std::generic_category().message(error) + hint(name, error));
}

/// What a program is started with, in the system's own terms.
class Start {
 public:
  Start() {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawnattr_init(&attributes_);
    sigset_t signals;
    ::sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes_, &signals);
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes_, &signals);
    ::posix_spawnattr_setflags(
        &attributes_,
        static_cast<short>(POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK));
  }
  ~Start() {
    ::posix_spawnattr_destroy(&attributes_);
    ::posix_spawn_file_actions_destroy(&actions_);
  }
  Start(const Start&) = delete;
  Start& operator=(const Start&) = delete;

  /// These return the system's error number, 0 for none.
  int give(int file, int number) {
    return ::posix_spawn_file_actions_adddup2(&actions_, file, number);
  }
  /// For a program that must not take a person's keys. It opens that itself: this process may have
  /// no descriptor left.
  int giveNothing(int number) {
    return ::posix_spawn_file_actions_addopen(&actions_, number, "/dev/null", O_RDONLY, 0);
  }
  int run(const std::vector<std::string>& words, pid_t& process) const {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    return ::posix_spawnp(&process, pointers.front(), &actions_, &attributes_, pointers.data(),
                          environ);
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

/// If the parent ignores this signal, this process would too, and never learn how a child ended.
void heedChildren() { ::signal(SIGCHLD, SIG_DFL); }

/// Orphans become children of this process instead of process 1, which in a container may never
/// reap them: a group of dead processes looks like a living one.
void adoptOrphans() { ::prctl(PR_SET_CHILD_SUBREAPER, 1); }

pid_t start(const std::vector<std::string>& words, int output) {
  heedChildren();
  adoptOrphans();
  Start start;
  int error = start.give(output, STDOUT_FILENO);
  if (error == 0 && ::isatty(STDIN_FILENO) == 1) error = start.giveNothing(STDIN_FILENO);
  pid_t process = -1;
  if (error == 0) error = start.run(words, process);
  if (error != 0) throwNotStarted(words.front(), error);
  return process;
}

int openProcess(pid_t process) {
#ifdef SYS_pidfd_open
  return static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
#else
  static_cast<void>(process);
  return -1;
#endif
}

}  // namespace

std::string signalName(int signal) {
  const char* const name = ::sigabbrev_np(signal);
  return "SIG" + (name == nullptr ? std::to_string(signal) : name);
}

ChildProcess::ChildProcess(const std::vector<std::string>& words, int output)
    : id_(start(words, output)), descriptor_(openProcess(id_)) {}

ChildProcess::~ChildProcess() {
  if (id_ > 0) endBefore(Clock::now());
  if (descriptor_ >= 0) ::close(descriptor_);
}

std::optional<ProcessEnd> ChildProcess::look() const noexcept {
  siginfo_t end = {};
  const auto id = static_cast<id_t>(id_);
  if (::waitid(P_PID, id, &end, WEXITED | WNOHANG | WNOWAIT) != 0 || end.si_pid == 0) {
    return std::nullopt;
  }
  if (end.si_code == CLD_EXITED) return ProcessEnd{end.si_status, 0};
  return ProcessEnd{0, end.si_status};
}

void ChildProcess::signal(int number) const noexcept {
  if (id_ > 0) ::kill(-id_, number);
}

std::optional<ProcessEnd> ChildProcess::endBefore(Clock::time_point deadline) noexcept {
  auto end = awaitEnd(deadline);
  if (!end) {
    signal(SIGKILL);
    end = awaitEnd(Clock::now() + kDyingTime);
  }
  // Dead but not waited for, the program would count as a process of its group.
  if (end && ::waitpid(id_, nullptr, 0) == id_ && !awaitEmptyGroup(deadline)) signal(SIGKILL);
  id_ = -1;
  return end;
}

void ChildProcess::release() noexcept {
  ::waitpid(id_, nullptr, 0);
  id_ = -1;
}

std::optional<ProcessEnd> ChildProcess::awaitEnd(Clock::time_point deadline) const noexcept {
  std::optional<ProcessEnd> end;
  lookUntil(deadline, [&] { return (end = look()).has_value(); });
  return end;
}

/// Zombies do not count.
bool ChildProcess::hasGroup() const noexcept {
  while (::waitpid(-id_, nullptr, WNOHANG) > 0) {
  }
  return ::kill(-id_, 0) == 0;
}

bool ChildProcess::awaitEmptyGroup(Clock::time_point deadline) const noexcept {
  return lookUntil(deadline, [this] { return !hasGroup(); });
}

}  // namespace korvex::tool
