#ifndef TESTS_INTEGRATION_ENGINES_PRODUCER_H
#define TESTS_INTEGRATION_ENGINES_PRODUCER_H

#include <fcntl.h>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "support/Process.h"

namespace korvex::test {

/// Bytes that no engine can pack or has stored before.
inline std::string noise(std::size_t size) {
  std::mt19937_64 generator(std::random_device{}());
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

/// A `korvex send` that gets as much as the test wants it to, and never sees the end of its input.
class Producer {
 public:
  Producer(const std::string& queue, const std::string& pipe)
      : pipe_(openPipe(pipe)),
        process_({KORVEX_PROGRAM, "send", "--quiet", "--queue", queue, pipe}) {}
  ~Producer() { ::close(pipe_); }
  Producer(const Producer&) = delete;
  Producer& operator=(const Producer&) = delete;

  Process& process() { return process_; }

  /// Returns when the producer has taken so much. False when it does not.
  bool feed(std::size_t size) {
    const std::string bytes = noise(size);
    std::size_t fed = 0;
    eventually([&] {
      fed += feedSome(bytes, fed);
      return fed == size || process_.wait(std::chrono::milliseconds(0));
    });
    return fed == size;
  }

  /// Its exit code, once it takes no more.
  int feedUntilItEnds() {
    while (feed(kSomeBytes)) continue;
    return process_.wait().value_or(-1);
  }

 private:
  static constexpr std::size_t kSomeBytes = 1 << 20;

  /// With both ends here, so that neither opening nor writing waits for the producer.
  static int openPipe(const std::string& path) {
    if (::mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("cannot make " + path);
    return ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  }

  std::size_t feedSome(const std::string& bytes, std::size_t start) const {
    std::size_t end = start;
    for (ssize_t done = 1; done > 0 && end < bytes.size();) {
      done = ::write(pipe_, bytes.data() + end, bytes.size() - end);
      if (done > 0) end += static_cast<std::size_t>(done);
    }
    return end - start;
  }

  int pipe_;
  Process process_;
};

}  // namespace korvex::test

#endif
