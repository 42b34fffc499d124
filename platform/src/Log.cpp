#include "qmx/log.h"

#include <cstdarg>
#include <cstdio>

#include "Sink.h"
#include "qmx/trace.h"

namespace {

std::uint32_t traceFlag = 0;

void writeFormatted(qmx::Level level, int code, const char* format, std::va_list arguments) {
  char text[4096];
  std::vsnprintf(text, sizeof text, format, arguments);
  qmx::write({level, code, text});
}

}  // namespace

std::uint32_t* __qmxlog_trace_location() { return &traceFlag; }

void __TraceA(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  writeFormatted(qmx::Level::Trace, 0, format, arguments);
  va_end(arguments);
}

void InfoA(int code, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  writeFormatted(qmx::Level::Info, code, format, arguments);
  va_end(arguments);
}

void AuthA(int code, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  writeFormatted(qmx::Level::Auth, code, format, arguments);
  va_end(arguments);
}

void WarningA(int code, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  writeFormatted(qmx::Level::Warning, code, format, arguments);
  va_end(arguments);
}

void ErrorA(int code, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  writeFormatted(qmx::Level::Error, code, format, arguments);
  va_end(arguments);
}
