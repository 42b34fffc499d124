#include "korvex/Logger.h"

#include <cstdarg>
#include <cstdio>
#include <qmx/log.h>

#include "support/Text.h"
#include "support/Trace.h"

namespace korvex::server {
namespace {

constexpr std::size_t kMessageCapacity = 4096;  // one for the NUL

// The line is passed as the platform's format, without arguments, and is interpreted again there.
// Passing it to a "%s" would change the output: components double their percent signs for both
// readings. The compiler's warning is right everywhere but here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"

void handOver(KorvxServerLoglevel level, int code, const char* line) {
  switch (level) {
    case LOGLEVEL_INFO:
      return InfoA(code, line);
    case LOGLEVEL_AUTH:
      return AuthA(code, line);
    case LOGLEVEL_WARNING:
      return WarningA(code, line);
    case LOGLEVEL_ERROR:
      return ErrorA(code, line);
  }
  // Any other number: the line is dropped.
}

void handOverTrace(const char* line) { __TraceA(line); }

#pragma GCC diagnostic pop

}  // namespace

Logger::Logger(const std::string& name) : componentName_(name) {}

// The level is checked last, so a null name is refused at every level.
void Logger::log(KorvxServerLoglevel level, const char* function, int code, const char* format,
                 ...) {
  char message[kMessageCapacity] = {};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(message, sizeof message, format, arguments);
  va_end(arguments);
  handOver(level, code, composeLine(function, message).c_str());
}

void Logger::logTrace(const char* function, const char* format, ...) {
  if (!isTracing()) return;
  char message[kMessageCapacity] = {};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(message, sizeof message, format, arguments);
  va_end(arguments);
  const std::string line = composeLine(function, message);
  // Tracing may have been switched off meanwhile; then no more lines are wanted.
  if (isTracing()) handOverTrace(line.c_str());
}

// An identity on purpose: lines carry the name as the caller wrote it, qualified or not.
std::string Logger::trimFunctionName(const std::string& name) { return name; }

std::string Logger::composeLine(const char* function, const char* message) {
  const std::string name = trimFunctionName(function);  // throws for a null pointer
  if (componentName_.empty()) return textOf(name, ": ", message);
  return textOf(componentName_, "::", name, ": ", message);
}

}  // namespace korvex::server
