#ifndef QMX_SINK_H
#define QMX_SINK_H

#include <functional>
#include <string>

#include "qmx/Export.h"

/// Where the default platform's lines go. Another platform library need not have this header.
///
/// A line carries time, level, process id and code, then the text, whose control characters are
/// escaped: one log call is one line. Every function may be called from any thread at any time: a
/// line goes wholly to the sink that was set when it was written, and when a function returns, the
/// sink before it is no longer in use. A line that the sink cannot take (a full disk, a receiver
/// that throws) goes to standard error; log calls never throw. No call of this header, of log.h or
/// of trace.h is a cancellation point, a receiver's work included.
namespace qmx {

enum class Level { Trace, Info, Auth, Warning, Error };

/// One line before it is laid out: the text is as it was logged, with nothing escaped. Valid during
/// the call only.
struct Line {
  Level level;
  int code;  ///< the caller's message number; 0 for trace lines
  const char* text;
};

/// The default: lines go to standard error.
QMX_EXPORT void logToStandardError();

/// Appends to the file, creating it (not its folder) when absent. Throws Ov_ErrnoException with the
/// system's error number as status when the file cannot be opened; the sink set before stays then.
QMX_EXPORT void logToFile(const std::string& path);

/// Lines go to the system log under `identity`; time and process id are that log's own. Takes over
/// the process's one connection to it.
QMX_EXPORT void logToSystemLog(const std::string& identity);

/// Hands every line to `receiver`, one at a time. The receiver must not call this header's
/// functions. It had better not log either: such lines go to standard error.
QMX_EXPORT void logToCallback(std::function<void(const Line&)> receiver);

/// Switches trace lines on or off; sets the flag of __qmxlog_trace_location.
QMX_EXPORT void setTracing(bool enabled);
}  // namespace qmx

#endif
