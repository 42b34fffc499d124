#ifndef TESTS_SUPPORT_FEW_DESCRIPTORS_H
#define TESTS_SUPPORT_FEW_DESCRIPTORS_H

#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace korvex::test {

/// While it lives, the process has only so many descriptors left.
class FewDescriptors {
 public:
  explicit FewDescriptors(unsigned left, pid_t process = ::getpid()) : process_(process) {
    ::prlimit(process_, RLIMIT_NOFILE, nullptr, &before_);
    rlimit limit = before_;
    for (limit.rlim_cur = 0; isOpen(limit.rlim_cur) || left > 0; ++limit.rlim_cur) {
      if (!isOpen(limit.rlim_cur)) --left;
    }
    EXPECT_EQ(::prlimit(process_, RLIMIT_NOFILE, &limit, nullptr), 0);
  }
  ~FewDescriptors() { ::prlimit(process_, RLIMIT_NOFILE, &before_, nullptr); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  bool isOpen(rlim_t number) const {
    char target = 0;
    const std::string link = "/proc/" + std::to_string(process_) + "/fd/" + std::to_string(number);
    return ::readlink(link.c_str(), &target, 1) > 0;
  }

  const pid_t process_;
  rlimit before_ = {};
};

}  // namespace korvex::test

#endif
