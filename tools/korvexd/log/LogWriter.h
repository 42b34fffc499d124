#ifndef KORVEXD_LOG_WRITER_H
#define KORVEXD_LOG_WRITER_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "korvexd/log/LogFormat.h"

namespace korvexd {

/// Lines of this process that are missing from the log.
struct LogLosses {
  std::atomic<std::uint64_t> unread{0};     ///< not read in time
  std::atomic<std::uint64_t> unwritten{0};  ///< the write failed, or wrote only part
  std::atomic<std::uint64_t> held{0};       ///< there were too many of their kind
};

/// Since the start. Any thread may count and read.
LogLosses& logLosses() noexcept;

/// Writes lines to a descriptor in a thread of its own, so that those who log never wait for the
/// reader: a pipe that nobody reads, a terminal that is held, a disk that hangs.
///
/// Lines keep their order. While the reader does not keep up, the oldest of kMostLines gives way to
/// the newest. A line that cannot be written, on a full disk for example, is not tried again. A
/// line in place of the missing ones says how many they are, as soon as it can be written. The
/// thread takes no signals.
class LogWriter {
 public:
  static constexpr std::size_t kMostLines = 8192;

  /// The descriptor is used as long as the process lives; the format is for lines about missing
  /// ones. Throws SystemError when there is no thread to be had.
  LogWriter(int descriptor, std::chrono::milliseconds patience,
            LogFormat format = {LogStyle::Text, LogReader::Anyone});

  /// Waits until everything is written, but no longer than its patience.
  ~LogWriter();
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  /// Waits until no line is left to write, but no longer than its patience.
  void flush() noexcept;

  /// Takes a line with its line feed. Never waits for the reader; may be called by any thread.
  void add(std::string line) noexcept;

 private:
  struct State;

  const std::chrono::milliseconds patience_;
  const std::shared_ptr<State> state_;  ///< the thread's too, which may outlive the object
  std::thread thread_;
};

}  // namespace korvexd

#endif
