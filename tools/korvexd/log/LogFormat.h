#ifndef KORVEXD_LOG_FORMAT_H
#define KORVEXD_LOG_FORMAT_H

#include <spdlog/common.h>
#include <string>

#include "korvexd/log/LogEntry.h"

namespace korvexd {

enum class LogStyle { Text, Json };

/// Who reads the log: the journal of systemd takes the priority from the line's first characters,
/// and has the time itself.
enum class LogReader { Anyone, Journal };

/// Whether this descriptor is the journal's stream, according to JOURNAL_STREAM.
LogReader readerOf(int descriptor);

/// Lays out the lines of the log. For any thread.
class LogFormat {
 public:
  LogFormat(LogStyle style, LogReader reader) : style_(style), reader_(reader) {}

  /// One line with its line feed, whatever the entry's texts hold.
  std::string line(const LogEntry& entry, spdlog::log_clock::time_point time) const;

 private:
  const LogStyle style_;
  const LogReader reader_;
};

}  // namespace korvexd

#endif
