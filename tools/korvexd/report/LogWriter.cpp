#include "korvexd/report/LogWriter.h"

#include <poll.h>
#include <signal.h>
#include <spdlog/pattern_formatter.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <utility>

#include "korvexd/os/Thread.h"

namespace korvexd {
namespace {

/// As every other line of the log.
std::string noticeOf(std::uint64_t lost) {
  const std::string text = std::to_string(lost) + " log lines are missing here: nobody read them";
  spdlog::memory_buf_t line;
  spdlog::pattern_formatter().format(spdlog::details::log_msg("korvexd", spdlog::level::warn, text),
                                     line);
  return {line.data(), line.size()};
}

/// What cannot be written has nowhere else to go.
void writeAll(int descriptor, const std::string& line) noexcept {
  const char* rest = line.data();
  std::size_t size = line.size();
  while (size > 0) {
    const ssize_t written = ::write(descriptor, rest, size);
    if (written >= 0) {
      rest += written;
      size -= static_cast<std::size_t>(written);
    } else if (errno == EAGAIN) {
      // Whoever shares the descriptor made it non-blocking.
      pollfd ready = {descriptor, POLLOUT, 0};
      ::poll(&ready, 1, -1);
    } else if (errno != EINTR) {
      return;
    }
  }
}

/// Keeps every signal from the calling thread as long as it exists.
class NoSignals {
 public:
  NoSignals() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~NoSignals() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  NoSignals(const NoSignals&) = delete;
  NoSignals& operator=(const NoSignals&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

struct LogWriter::State {
  explicit State(int file) : descriptor(file) {}

  void run() noexcept;
  std::string next() noexcept;

  const int descriptor;
  std::mutex mutex;
  std::condition_variable changed;
  std::condition_variable ended;
  std::deque<std::string> lines;
  std::uint64_t lost = 0;
  bool isOver = false;
  bool hasEnded = false;
};

void LogWriter::State::run() noexcept {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    changed.wait(lock, [this] { return isOver || !lines.empty(); });
    if (lines.empty()) break;
    const std::string line = next();
    lock.unlock();
    writeAll(descriptor, line);
    lock.lock();
  }
  hasEnded = true;
  ended.notify_all();
}

/// What to write now. The lines that were lost were older than those that are there.
std::string LogWriter::State::next() noexcept {
  if (lost != 0) {
    try {
      std::string notice = noticeOf(lost);
      lost = 0;
      return notice;
    } catch (const std::exception&) {
      // No memory just now; it is said before a later line.
    }
  }
  std::string line = std::move(lines.front());
  lines.pop_front();
  return line;
}

LogWriter::LogWriter(int descriptor, std::chrono::milliseconds patience)
    : patience_(patience), state_(std::make_shared<State>(descriptor)) {
  const NoSignals noSignals;  // a new thread has its maker's mask, and signals are for others
  thread_ = startThread("the log", [state = state_] { state->run(); });
}

LogWriter::~LogWriter() {
  std::unique_lock<std::mutex> lock(state_->mutex);
  state_->isOver = true;
  state_->changed.notify_one();
  const bool isWritten =
      state_->ended.wait_for(lock, patience_, [this] { return state_->hasEnded; });
  lock.unlock();
  if (isWritten) {
    thread_.join();
  } else {
    // It hangs in a write, which ends with the process.
    thread_.detach();
  }
}

void LogWriter::add(std::string line) noexcept {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  try {
    state_->lines.push_back(std::move(line));
  } catch (const std::exception&) {
    ++state_->lost;
    return;
  }
  if (state_->lines.size() > kMostLines) {
    state_->lines.pop_front();
    ++state_->lost;
  }
  state_->changed.notify_one();
}

}  // namespace korvexd
