#ifndef TESTS_SUPPORT_PROCESS_H
#define TESTS_SUPPORT_PROCESS_H

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

#include "support/Await.h"

namespace korvex::test {

/// A real program, running. Collects what it writes. Killed with the object.
class Process {
 public:
  /// Starts `command[0]`, a path, with the rest as its arguments.
  explicit Process(const std::vector<std::string>& command);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t id() const { return id_; }

  /// Sends it a signal.
  void signal(int number) const;

  /// Waits until it has taken every signal that was sent to it. False if it never does.
  bool awaitSignalsTaken() const;

  /// Sends SIGSTOP, and returns once the process has stopped: a signal is not instant.
  void freeze() const;

  /// Waits for its end. Returns the exit code, the negative number of the signal that killed it, or
  /// nothing if it still runs after that time.
  std::optional<int> wait(std::chrono::milliseconds patience = kPatience);

  /// Kills it with no chance to clean up, and waits for its end.
  void killNow();

  // What it wrote; whole once wait() gave a code.
  const std::string& output();
  const std::string& errors();

 private:
  void readPipes();
  static void drain(int& pipe, std::string& text);

  pid_t id_ = -1;
  bool ended_ = false;
  int code_ = 0;
  int outputPipe_ = -1;
  int errorPipe_ = -1;
  std::string output_;
  std::string errors_;
};

}  // namespace korvex::test

#endif
