#include "send/ProgressSignal.h"

#include <poll.h>
#include <signal.h>
#include <string>
#include <system_error>
#include <unistd.h>

namespace korvex::tool {
namespace {

constexpr std::size_t kWidth = 80;

sigset_t progressSignal() noexcept {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  return signals;
}

/// If nobody reads standard error, a write would block the thread, and with it the end of the
/// stream. One that fails does not block.
bool canTell() noexcept {
  pollfd errors = {STDERR_FILENO, POLLOUT, 0};
  return ::poll(&errors, 1, 0) == 1;
}

}  // namespace

void ProgressSignal::expect() noexcept {
  const sigset_t signals = progressSignal();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

/// The thread takes no other signal: one that interrupts the stream must reach the thread that
/// waits. It starts with all of them blocked, since it may be asked to end before it has run.
ProgressSignal::ProgressSignal(Clock::time_point start) noexcept : start_(start) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    thread_ = std::thread([this] { answerSignals(); });
  } catch (const std::system_error&) {
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

ProgressSignal::~ProgressSignal() {
  if (!thread_.joinable()) return;
  isOver_ = true;
  ::pthread_kill(thread_.native_handle(), SIGUSR1);
  thread_.join();
}

void ProgressSignal::answerSignals() const {
  const sigset_t signals = progressSignal();
  for (int signal = 0; ::sigwait(&signals, &signal) == 0 && !isOver_;) answer();
}

/// In one write, and not through std::cerr, which may be drawing its own line just now.
void ProgressSignal::answer() const {
  if (!canTell()) return;
  const std::string line = std::string(::isatty(STDERR_FILENO) == 1 ? "\r\x1b[K" : "") +
                           "korvex: " + doing_.load() + ": " + numbers() + "\n";
  static_cast<void>(!::write(STDERR_FILENO, line.data(), line.size()));
}

std::string ProgressSignal::numbers() const {
  const Clock::time_point now = Clock::now();
  const Clock::time_point sent = sent_;
  if (sent != kNotYet) return sentText(bytes_, now - sent);
  const std::uint64_t total = total_;
  return progressLine(
      {bytes_, total == kUnknown ? std::nullopt : std::make_optional(total), now - start_}, kWidth);
}

}  // namespace korvex::tool
