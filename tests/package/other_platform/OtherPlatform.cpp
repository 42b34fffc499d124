// A platform of somebody else's: the same functions, tracing always on, lines to standard output.
#include <cstdarg>
#include <cstdio>
#include <qmx/log.h>
#include <qmx/trace.h>

namespace {

std::uint32_t traceFlag = 1;

void print(const char* format, std::va_list arguments) {
  std::fputs("other platform: ", stdout);
  std::vprintf(format, arguments);
  std::puts("");
}

}  // namespace

#define PRINT()                \
  std::va_list arguments;      \
  va_start(arguments, format); \
  print(format, arguments);    \
  va_end(arguments)

std::uint32_t* __qmxlog_trace_location() { return &traceFlag; }
void __TraceA(const char* format, ...) { PRINT(); }
void InfoA(int, const char* format, ...) { PRINT(); }
void AuthA(int, const char* format, ...) { PRINT(); }
void WarningA(int, const char* format, ...) { PRINT(); }
void ErrorA(int, const char* format, ...) { PRINT(); }
