#ifndef TESTS_SUPPORT_SHARED_COUNTER_H
#define TESTS_SUPPORT_SHARED_COUNTER_H

#include <atomic>
#include <string>

namespace korvex::test {

/// A counter that one process raises and another one reads. May be raised in a signal handler.
class SharedCounter {
 public:
  /// In memory, for a process and its children.
  SharedCounter();

  /// In a file, created if missing, for any program.
  explicit SharedCounter(const std::string& file);

  ~SharedCounter();
  SharedCounter(const SharedCounter&) = delete;
  SharedCounter& operator=(const SharedCounter&) = delete;

  void raise() noexcept { ++*number_; }
  unsigned value() const noexcept { return *number_; }

 private:
  std::atomic<unsigned>* number_;
};

}  // namespace korvex::test

#endif
