#ifndef KORVEX_TESTS_FAULTS_CHILD_H
#define KORVEX_TESTS_FAULTS_CHILD_H

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace korvex::test {

/// A program that was started, with its standard output or error going to a file. Killed and
/// reaped when the object goes.
class Child {
 public:
  /// `descriptor` is the one that goes to `file`.
  Child(const std::vector<std::string>& command, int descriptor, std::string file);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t id() const { return id_; }
  void signal(int number) const;

  /// True once it has ended; never waits.
  bool hasEnded();

  /// Kills it and waits until it is gone.
  void killNow();

  /// Waits for its end and returns the exit code, minus the signal that ended it; nothing when it
  /// still runs after `limit`.
  std::optional<int> wait(std::chrono::milliseconds limit);

  /// What it wrote so far.
  std::string said() const;

 private:
  bool reap(int options);

  pid_t id_ = -1;
  std::string file_;
  bool ended_ = false;
  int code_ = 0;
};

}  // namespace korvex::test

#endif
