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

/// Nobody may be reading standard error. A write would hold the thread up then, and the end of the
/// stream with it.
bool canTell() noexcept {
  pollfd errors = {STDERR_FILENO, POLLOUT, 0};
  return ::poll(&errors, 1, 0) == 1 && (errors.revents & POLLOUT) != 0;
}

}  // namespace

void ProgressSignal::expect() noexcept {
  const sigset_t signals = progressSignal();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

/// No other signal is for the thread: who interrupts the stream must reach the one that waits. It
/// is born with all of them blocked, for its end may be asked for before it has run at all.
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

/// In one piece and past the stream, which may just be drawing its own line.
void ProgressSignal::answer() const {
  if (!canTell()) return;
  const std::uint64_t total = total_;
  const ProgressState state{bytes_, total == kUnknown ? std::nullopt : std::make_optional(total),
                            Clock::now() - start_};
  const std::string line = std::string(::isatty(STDERR_FILENO) == 1 ? "\r\x1b[K" : "") +
                           "korvex: " + doing_.load() + ": " + progressLine(state, kWidth) + "\n";
  static_cast<void>(!::write(STDERR_FILENO, line.data(), line.size()));
}

}  // namespace korvex::tool
