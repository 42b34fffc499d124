#include "korvexd/log/LogWriter.h"

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <poll.h>
#include <signal.h>
#include <unistd.h>
#include <utility>

#include "korvexd/os/Thread.h"

namespace korvexd {
namespace {

/// Lines that are in no log, for one reason.
struct Loss {
  const char* reason;
  std::atomic<std::uint64_t>& total;
  std::uint64_t lines = 0;  ///< not reported yet

  void add() noexcept {
    ++lines;
    ++total;
  }
};

LogEntry noticeOf(const Loss& loss) {
  return LogEntry(Event::LinesLost, spdlog::level::warn, "",
                  std::to_string(loss.lines) + " log lines are missing here: " + loss.reason)
      .with("lines", loss.lines);
}

/// How much was written: less than everything when the system refuses, because the disk is full or
/// the reader is gone.
std::size_t writeAll(int descriptor, const std::string& line) noexcept {
  const char* rest = line.data();
  std::size_t size = line.size();
  while (size > 0) {
    const ssize_t written = ::write(descriptor, rest, size);
    if (written >= 0) {
      rest += written;
      size -= static_cast<std::size_t>(written);
    } else if (errno == EAGAIN) {
      // Another process that shares the descriptor made it non-blocking.
      pollfd ready = {descriptor, POLLOUT, 0};
      ::poll(&ready, 1, -1);
    } else if (errno != EINTR) {
      break;
    }
  }
  return line.size() - size;
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
  State(int file, const LogFormat& layout) : descriptor(file), format(layout) {}

  void run() noexcept;
  void writeNext(std::unique_lock<std::mutex>& lock) noexcept;
  bool report(Loss& loss, std::unique_lock<std::mutex>& lock) noexcept;
  bool write(const std::string& text, std::unique_lock<std::mutex>& lock) noexcept;

  const int descriptor;
  const LogFormat format;
  std::mutex mutex;
  std::condition_variable changed;
  std::condition_variable idle;
  std::deque<std::string> lines;
  Loss unwritten{"they could not be written", logLosses().unwritten};
  Loss unread{"they were not read in time", logLosses().unread};
  bool isCut = false;  ///< what was written last has no line feed; the thread's alone
  bool isOver = false;
  bool isWriting = false;
  bool hasEnded = false;
};

void LogWriter::State::run() noexcept {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    changed.wait(lock, [this] { return isOver || !lines.empty(); });
    if (lines.empty()) break;
    isWriting = true;
    writeNext(lock);
    isWriting = false;
    if (lines.empty()) idle.notify_all();
  }
  if (report(unwritten, lock)) report(unread, lock);
  hasEnded = true;
  idle.notify_all();
}

/// What is missing comes first: it was older than the lines that are there, and more may be missing
/// after each notice. Where no notice can be written, the next line is not tried.
void LogWriter::State::writeNext(std::unique_lock<std::mutex>& lock) noexcept {
  bool canWrite = true;
  while (canWrite && (unwritten.lines != 0 || unread.lines != 0)) {
    canWrite = report(unwritten, lock) && report(unread, lock);
  }
  const std::string line = std::move(lines.front());
  lines.pop_front();
  if (!canWrite || !write(line, lock)) unwritten.add();
}

/// False when the notice could not be written; it is tried again before a later line.
bool LogWriter::State::report(Loss& loss, std::unique_lock<std::mutex>& lock) noexcept {
  if (loss.lines == 0) return true;
  const std::uint64_t reported = loss.lines;
  try {
    const std::string notice = format.line(noticeOf(loss), spdlog::log_clock::now());
    if (!write(notice, lock)) return false;
  } catch (const std::exception&) {
    return false;  // no memory just now
  }
  loss.lines -= reported;
  return true;
}

/// Releases the lock meanwhile, for those who log.
bool LogWriter::State::write(const std::string& text, std::unique_lock<std::mutex>& lock) noexcept {
  lock.unlock();
  if (isCut) isCut = writeAll(descriptor, "\n") == 0;
  const std::size_t written = isCut ? 0 : writeAll(descriptor, text);
  if (written != 0) isCut = written < text.size();
  lock.lock();
  return written == text.size();
}

LogLosses& logLosses() noexcept {
  static LogLosses losses;
  return losses;
}

LogWriter::LogWriter(int descriptor, std::chrono::milliseconds patience, LogFormat format)
    : patience_(patience), state_(std::make_shared<State>(descriptor, format)) {
  const NoSignals noSignals;  // a new thread has its maker's mask, and signals are for others
  thread_ = startThread("the log", [state = state_] { state->run(); });
}

LogWriter::~LogWriter() {
  std::unique_lock<std::mutex> lock(state_->mutex);
  state_->isOver = true;
  state_->changed.notify_one();
  const bool isWritten =
      state_->idle.wait_for(lock, patience_, [this] { return state_->hasEnded; });
  lock.unlock();
  if (isWritten) {
    thread_.join();
  } else {
    // It hangs in a write, which ends with the process.
    thread_.detach();
  }
}

void LogWriter::flush() noexcept {
  std::unique_lock<std::mutex> lock(state_->mutex);
  state_->idle.wait_for(lock, patience_,
                        [this] { return state_->lines.empty() && !state_->isWriting; });
}

void LogWriter::add(std::string line) noexcept {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  try {
    state_->lines.push_back(std::move(line));
  } catch (const std::exception&) {
    state_->unread.add();
    return;
  }
  if (state_->lines.size() > kMostLines) {
    state_->lines.pop_front();
    state_->unread.add();
  }
  state_->changed.notify_one();
}

}  // namespace korvexd
