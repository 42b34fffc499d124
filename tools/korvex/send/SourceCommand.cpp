#include "send/SourceCommand.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "Failure.h"
#include "common/Printable.h"

namespace korvex::tool {
namespace {

constexpr int kPipeSize = 1 << 20;

std::string textOf(const ProcessEnd& end) {
  if (end.signal == 0) return "ended with exit code " + std::to_string(end.exitCode);
  return "was ended by signal " + std::to_string(end.signal) + " (" + signalName(end.signal) + ")";
}

std::string secondsOf(std::chrono::milliseconds time) {
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(time).count()) + " s";
}

}  // namespace

SourceCommand::SourceCommand(Settings settings, const StopSignal& stop)
    : settings_(std::move(settings)), stop_(stop) {}

SourceCommand::~SourceCommand() {
  settle();
  closeOutput();
}

void SourceCommand::start() {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    const int error = errno;
    throwFailed(static_cast<ov_status_t>(error),
                "cannot be started: " + std::generic_category().message(error));
  }
  output_ = ends[0];
  // A smaller one will do; the system may refuse this size.
  ::fcntl(output_, F_SETPIPE_SZ, kPipeSize);
  try {
    process_ = std::make_unique<ChildProcess>(settings_.words, ends[1]);
  } catch (...) {
    ::close(ends[1]);
    throw;
  }
  ::close(ends[1]);  // or the output would never end
  lastProgress_ = Clock::now();
}

std::size_t SourceCommand::readSome(unsigned char* buffer, std::size_t size) {
  for (;;) {
    while (!isReadable(output_)) checkPatience();
    const ssize_t got = ::read(output_, buffer, size);
    lastProgress_ = Clock::now();
    if (got >= 0) return static_cast<std::size_t>(got);
    if (errno == EINTR) continue;
    const int error = errno;
    throwFailed(static_cast<ov_status_t>(error),
                "has an output that cannot be read: " + std::generic_category().message(error));
  }
}

/// Waits for the next event, half a second at most, and handles everything but the data.
bool SourceCommand::isReadable(int file) {
  pollfd events[] = {{file, POLLIN, 0},
                     {stop_.descriptor(), POLLIN, 0},
                     {end_ ? -1 : process_->descriptor(), POLLIN, 0}};
  const int ready = ::poll(events, 3, static_cast<int>(kIdlePeriod.count()));
  stop_.throwIfReceived();
  if (events[2].revents != 0 || process_->descriptor() < 0) heed();
  pulse();
  return ready > 0 && events[0].revents != 0;
}

/// Sees whether the command has ended, and how.
void SourceCommand::heed() {
  if (end_) return;
  end_ = process_->look();
  if (!end_) return;
  lastProgress_ = Clock::now();
  if (!end_->isSuccess()) throwFailed(EIO, textOf(*end_));
}

/// Between the command's end and its output's, whichever comes first.
void SourceCommand::checkPatience() const {
  const bool isOneOver = end_ || output_ < 0;
  if (!isOneOver || Clock::now() < lastProgress_ + settings_.timeout) return;
  throwFailed(ETIMEDOUT,
              end_ ? "ended with exit code 0, but its output stayed open and silent for " +
                         secondsOf(settings_.timeout)
                   : "closed its output, but did not end within " + secondsOf(settings_.timeout));
}

void SourceCommand::finish() {
  closeOutput();
  lastProgress_ = Clock::now();
  while (!end_) {
    checkPatience();
    isReadable(output_);
  }
  isWhole_ = true;
  process_->release();
}

void SourceCommand::interrupt() noexcept {
  if (!process_ || isWhole_ || std::exchange(isInterrupted_, true)) return;
  graceEnd_ = Clock::now() + settings_.grace;
  process_->signal(stop_.received() != 0 ? stop_.received() : SIGTERM);
  process_->signal(SIGCONT);  // one that is stopped would not see the other signal
}

std::optional<ProcessEnd> SourceCommand::settle() noexcept {
  if (!process_ || isWhole_) return end_;
  interrupt();
  const auto end = process_->endBefore(graceEnd_);
  process_.reset();
  if (!end_) end_ = end;
  return end_;
}

void SourceCommand::closeOutput() noexcept {
  if (output_ >= 0) ::close(std::exchange(output_, -1));
}

void SourceCommand::throwFailed(ov_status_t status, const std::string& text) const {
  throw Failure(status, "the command '" + common::printable(settings_.words.front()) + "' " + text);
}

}  // namespace korvex::tool
