#ifndef TESTS_SUPPORT_TERMINAL_H
#define TESTS_SUPPORT_TERMINAL_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace korvex::test {

const std::string kToStart = "\r";
const std::string kEraseRest = "\x1b[K";

/// A terminal and what was written to it. Like every terminal it turns "\n" into "\r\n".
class Terminal {
 public:
  explicit Terminal(unsigned short columns)
      : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)) {
    EXPECT_EQ(::grantpt(master_), 0);
    EXPECT_EQ(::unlockpt(master_), 0);
    name_ = ::ptsname(master_);
    // Open as long as the object is, or the end of one program would end the terminal.
    slave_ = ::open(name_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    const winsize size = {24, columns, 0, 0};
    EXPECT_EQ(::ioctl(slave_, TIOCSWINSZ, &size), 0);
  }
  ~Terminal() {
    ::close(slave_);
    ::close(master_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  const std::string& name() const { return name_; }

  /// As if somebody typed it.
  void type(const std::string& keys) const {
    EXPECT_EQ(::write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  const std::string& text() {
    char bytes[4096];
    for (ssize_t size = 0; (size = ::read(master_, bytes, sizeof bytes)) > 0;) {
      text_.append(bytes, static_cast<std::size_t>(size));
    }
    return text_;
  }

  /// The lines that were drawn in one place so far, the empty ones that erase them too.
  std::vector<std::string> drawings() {
    std::vector<std::string> found;
    const std::string& all = text();
    for (std::size_t at = 0, end; (end = all.find(kEraseRest, at)) != std::string::npos;) {
      const std::size_t start = all.rfind(kToStart, end) + kToStart.size();
      found.push_back(all.substr(start, end - start));
      at = end + kEraseRest.size();
    }
    return found;
  }

 private:
  int master_;
  int slave_;
  std::string name_;
  std::string text_;
};

}  // namespace korvex::test

#endif
