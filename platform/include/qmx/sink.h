#ifndef QMX_SINK_H
#define QMX_SINK_H

#include <functional>
#include <string>

#include "qmx/Export.h"

/// @file
/// Where the default platform's lines go. Another platform library need not have this header.
///
/// A line carries time, level, process id and code, then the text, whose control characters are
/// escaped: one log call is one line. Every function may be called from any thread at any time. A
/// line goes entirely to the sink that was set when it was written; when one of these functions
/// returns, the previous sink is no longer in use. A line that the sink cannot take (a full disk, a
/// receiver that throws) goes to standard error; log calls never throw. No function of this header,
/// log.h or trace.h is a cancellation point, even while it runs a receiver.
namespace qmx {

/// How important a line is. Trace lines are written only while tracing is on.
enum class Level { Trace, Info, Auth, Warning, Error };

/// One line before formatting: the text as it was logged, unescaped. Valid only during the call.
struct Line {
  Level level;       ///< of the call that wrote it
  int code;          ///< the caller's message number; 0 for trace lines
  const char* text;  ///< NUL-terminated
};

/// The default: lines go to standard error.
QMX_EXPORT void logToStandardError();

/// Appends to the file, creating it (but not its folder) if it does not exist. Throws
/// Ov_ErrnoException with errno as the status if the file cannot be opened; the previous sink then
/// stays.
QMX_EXPORT void logToFile(const std::string& path);

/// Sends lines to syslog under `identity`; syslog adds time and process id. Takes over the
/// process's one syslog connection.
QMX_EXPORT void logToSystemLog(const std::string& identity);

/// Passes every line to `receiver`, one at a time. The receiver must not call this header's
/// functions and should not log: such lines go to standard error.
QMX_EXPORT void logToCallback(std::function<void(const Line&)> receiver);

/// Switches trace lines on or off; sets the flag of __qmxlog_trace_location.
QMX_EXPORT void setTracing(bool enabled);
}  // namespace qmx

#endif
