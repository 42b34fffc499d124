#include "StopSignal.h"

#include <cerrno>
#include <cstdint>
#include <signal.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

#include "Failure.h"

namespace korvex::tool {
namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

std::atomic<StopSignal*> listener{nullptr};

extern "C" void noteStopSignal(int signal);

/// From now on the signals that are caught end the process, whichever of them comes next.
void catchNoMore() {
  for (const int signal : kStopSignals) {
    struct sigaction action = {};
    if (::sigaction(signal, nullptr, &action) != 0 || action.sa_handler != noteStopSignal) continue;
    action.sa_handler = SIG_DFL;
    ::sigaction(signal, &action, nullptr);
  }
}

extern "C" void noteStopSignal(int signal) {
  const int savedError = errno;
  catchNoMore();
  if (StopSignal* const current = listener.load()) current->note(signal);
  errno = savedError;
}

void catchOnce(int signal) {
  struct sigaction action = {};
  if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) return;
  action = {};
  action.sa_handler = noteStopSignal;
  // No restart: a blocking open or read returns, so that the request is seen.
  ::sigaction(signal, &action, nullptr);
}

}  // namespace

StopSignal::StopSignal() : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (descriptor_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

StopSignal::~StopSignal() {
  StopSignal* self = this;
  listener.compare_exchange_strong(self, nullptr);
  ::close(descriptor_);
}

void StopSignal::listen() {
  listener = this;
  for (const int signal : kStopSignals) catchOnce(signal);
}

void StopSignal::note(int signal) noexcept {
  int none = 0;
  received_.compare_exchange_strong(none, signal);
  const std::uint64_t one = 1;
  // Cannot fail in a way that matters: a full counter is readable too.
  static_cast<void>(!::write(descriptor_, &one, sizeof one));
}

void StopSignal::throwIfReceived() const {
  if (received() != 0) throw Interrupted{received()};
}

}  // namespace korvex::tool
