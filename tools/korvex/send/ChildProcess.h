#ifndef KORVEX_TOOL_CHILD_PROCESS_H
#define KORVEX_TOOL_CHILD_PROCESS_H

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace korvex::tool {

/// How a process ended: by itself with a code, or by a signal.
struct ProcessEnd {
  int exitCode;
  int signal;  ///< 0 for none

  bool isSuccess() const { return exitCode == 0 && signal == 0; }
};

/// "SIGKILL"; "SIG34" where the system has no name for the number.
std::string signalName(int signal);

/// A program that runs beside this one, and the processes that it starts.
///
/// It has a session without a terminal, hence a process group of its own: keys like Ctrl-C do not
/// reach it, and it can neither ask on a terminal nor be stopped by one. All signals have their
/// default actions and are let through. It gets the caller's standard error, and the caller's
/// standard input unless that is a terminal; then it reads nothing.
///
/// Its number stays reserved until the last call, so a signal never reaches another process.
class ChildProcess {
 public:
  using Clock = std::chrono::steady_clock;

  /// Starts `words[0]`, which is looked up in PATH unless it holds a slash, with `output` as its
  /// standard output. Throws a Failure with the system's reason when it cannot be started.
  ChildProcess(const std::vector<std::string>& words, int output);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Becomes readable when the program ends. -1 on a system without such descriptors.
  int descriptor() const noexcept { return descriptor_; }

  /// How the program ended, as soon as it has.
  std::optional<ProcessEnd> look() const noexcept;

  /// Signals the program and those of its processes that have stayed in its group.
  void signal(int number) const noexcept;

  /// Waits until the group is empty, and kills what is left at the deadline. Returns how the
  /// program ended; nothing if it outlived even that, as another user's may. The last call.
  std::optional<ProcessEnd> endBefore(Clock::time_point deadline) noexcept;

  /// Releases a program that has ended. Its children keep running. The last call.
  void release() noexcept;

 private:
  std::optional<ProcessEnd> awaitEnd(Clock::time_point deadline) const noexcept;
  bool hasGroup() const noexcept;
  bool awaitEmptyGroup(Clock::time_point deadline) const noexcept;

  pid_t id_ = -1;
  int descriptor_ = -1;
};

}  // namespace korvex::tool

#endif
