#include "send/ProgressSignal.h"

#include <signal.h>
#include <unistd.h>

#include <string>
#include <system_error>

namespace korvex::tool {
namespace {

constexpr std::size_t kWidth = 80;

sigset_t progressSignal() noexcept {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  return signals;
}

}  // namespace

void ProgressSignal::expect() noexcept {
  const sigset_t signals = progressSignal();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

ProgressSignal::ProgressSignal(Clock::time_point start) noexcept : start_(start) {
  try {
    thread_ = std::thread([this] { answerSignals(); });
  } catch (const std::system_error&) {
  }
}

ProgressSignal::~ProgressSignal() {
  if (!thread_.joinable()) return;
  isOver_ = true;
  ::pthread_kill(thread_.native_handle(), SIGUSR1);
  thread_.join();
}

/// No other signal is for this thread: who interrupts the stream must reach the one that waits.
void ProgressSignal::answerSignals() const {
  sigset_t all;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
  const sigset_t signals = progressSignal();
  for (int signal = 0; ::sigwait(&signals, &signal) == 0 && !isOver_;) answer();
}

/// In one piece and past the stream, which may just be drawing its own line.
void ProgressSignal::answer() const {
  const std::uint64_t total = total_;
  const ProgressState state{bytes_, total == kUnknown ? std::nullopt : std::make_optional(total),
                            Clock::now() - start_};
  const std::string line = std::string(::isatty(STDERR_FILENO) == 1 ? "\r\x1b[K" : "") +
                           "korvex: " + doing_.load() + ": " + progressLine(state, kWidth) + "\n";
  static_cast<void>(!::write(STDERR_FILENO, line.data(), line.size()));
}

}  // namespace korvex::tool
