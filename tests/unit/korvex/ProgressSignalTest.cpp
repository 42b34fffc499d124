#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <optional>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include "send/ProgressSignal.h"
#include "support/Await.h"
#include "support/RestoredDescriptor.h"

namespace {

using korvex::test::RestoredDescriptor;
using korvex::tool::ProgressSignal;
using testing::StartsWith;

/// So long that what a slow machine adds does not show.
constexpr std::chrono::hours kLong{1000};

/// A program that expects the signal and whose standard error is a pipe.
class ProgressSignalAnswer : public testing::Test {
 protected:
  ProgressSignalAnswer() {
    EXPECT_EQ(::pipe2(ends_, O_CLOEXEC), 0);
    errors_.emplace(STDERR_FILENO, ends_[1]);
    ::pthread_sigmask(SIG_SETMASK, nullptr, &before_);
    ProgressSignal::expect();
  }
  ~ProgressSignalAnswer() override {
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    for (const int end : ends_) ::close(end);
  }

  /// The line that a signal asks for; what there is of it if no more comes.
  std::string answer() const {
    EXPECT_EQ(::kill(::getpid(), SIGUSR1), 0);
    const std::chrono::milliseconds patience = korvex::test::kPatience;
    std::string line;
    pollfd end = {ends_[0], POLLIN, 0};
    while (line.find('\n') == std::string::npos) {
      char byte = 0;
      if (::poll(&end, 1, static_cast<int>(patience.count())) != 1) break;
      if (::read(ends_[0], &byte, 1) != 1) break;
      line += byte;
    }
    return line;
  }

  int ends_[2];
  std::optional<RestoredDescriptor> errors_;
  sigset_t before_;
};

}  // namespace

TEST_F(ProgressSignalAnswer, TellsHowFarTheStreamIs) {
  const auto start = ProgressSignal::Clock::now() - kLong;
  ProgressSignal told(start);
  EXPECT_THAT(answer(), StartsWith("korvex: opening the stream: 0 B, 0 B/s, 1000:"));
  told.note("sending");
  told.noteBytes(500);
  told.noteTotal(std::nullopt);
  EXPECT_THAT(answer(), StartsWith("korvex: sending: 500 B, 0 B/s, 1000:"));
  told.noteTotal(std::uint64_t{1000});
  EXPECT_EQ(answer(), "korvex: sending:  50% [" + std::string(17, '=') + std::string(18, ' ') +
                          "] 500 B of 1.0 kB, 0 B/s, 99:59:59 left\n");
  told.noteWait("waiting", start);
  EXPECT_THAT(answer(), StartsWith("korvex: waiting: 500 B sent 1000:"));
}
