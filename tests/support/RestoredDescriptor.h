#ifndef TESTS_SUPPORT_RESTORED_DESCRIPTOR_H
#define TESTS_SUPPORT_RESTORED_DESCRIPTOR_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace korvex::test {

/// The number that the next descriptor gets: the same again when none was kept meanwhile.
inline int nextDescriptor() {
  const int file = ::dup(STDERR_FILENO);
  ::close(file);
  return file;
}

/// Puts another file in the place of a descriptor, and the first one back at the end.
class RestoredDescriptor {
 public:
  /// The replacement stays the caller's. -1 leaves the place empty.
  RestoredDescriptor(int descriptor, int replacement)
      : descriptor_(descriptor), saved_(::fcntl(descriptor, F_DUPFD_CLOEXEC, kOutOfTheWay)) {
    if (replacement < 0) {
      ::close(descriptor_);
    } else {
      EXPECT_EQ(::dup2(replacement, descriptor_), descriptor_);
    }
  }
  ~RestoredDescriptor() {
    ::dup2(saved_, descriptor_);
    ::close(saved_);
  }
  RestoredDescriptor(const RestoredDescriptor&) = delete;
  RestoredDescriptor& operator=(const RestoredDescriptor&) = delete;

 private:
  static constexpr int kOutOfTheWay = 10;  ///< above what a test may look for

  int descriptor_;
  int saved_;
};

}  // namespace korvex::test

#endif
