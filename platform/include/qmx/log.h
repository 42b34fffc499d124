#ifndef QMX_LOG_H
#define QMX_LOG_H

#include "qmx/trace.h"

extern "C" {

/// Each writes one line at its level. `code` is the caller's message number; -1 says that it has
/// none. The format and its arguments are printf's; when they do not go together (a wide character
/// that the locale cannot express), the format is written as it stands, and so is a format that
/// holds a "%n". Never throws, keeps errno. A thread that is cancelled meanwhile writes its line
/// first.
///
/// A text from elsewhere is an argument for "%s", never the format: its percent signs would read
/// arguments that are not there.
QMX_EXPORT void InfoA(int code, const char* format, ...) QMX_PRINTF_FORMAT(2, 3);
QMX_EXPORT void AuthA(int code, const char* format, ...) QMX_PRINTF_FORMAT(2, 3);
QMX_EXPORT void WarningA(int code, const char* format, ...) QMX_PRINTF_FORMAT(2, 3);
QMX_EXPORT void ErrorA(int code, const char* format, ...) QMX_PRINTF_FORMAT(2, 3);
}

#endif
