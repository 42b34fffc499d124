#ifndef QMX_LOG_H
#define QMX_LOG_H

#include "qmx/trace.h"

/// @file
/// Lines for the log.

extern "C" {

/// @{
/// Each writes one line at its level. `code` is the caller's message number; -1 means none. The
/// format and its arguments are printf's; if formatting fails (a wide character that the locale
/// cannot represent) or the format contains "%n", the bare format is written. Never throws,
/// preserves errno. A thread that is cancelled meanwhile still writes its line.
///
/// Pass foreign text as an argument to "%s", never as the format: its percent signs would read
/// arguments that are not there.
QMX_EXPORT void InfoA(int code, const char* format, ...) QMX_PRINTF_FORMAT(2, 3);
QMX_EXPORT void AuthA(int code, const char* format, ...) QMX_PRINTF_FORMAT(2, 3);
QMX_EXPORT void WarningA(int code, const char* format, ...) QMX_PRINTF_FORMAT(2, 3);
QMX_EXPORT void ErrorA(int code, const char* format, ...) QMX_PRINTF_FORMAT(2, 3);
/// @}
}

#endif
