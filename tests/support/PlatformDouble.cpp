#include "support/PlatformDouble.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <qmx/log.h>
#include <qmx/trace.h>

namespace korvex::test::platform_double {
namespace {

std::mutex mutex;
std::vector<Call> recorded;
std::uint32_t flag = 0;
unsigned reads = 0;
unsigned offAt = 0;

void record(const char* function, int code, const char* format, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(length < 0 ? 0 : static_cast<std::size_t>(length), '\0');
  if (length > 0) std::vsnprintf(&text[0], text.size() + 1, format, arguments);
  const std::lock_guard<std::mutex> lock(mutex);
  recorded.push_back({function, code, format, text});
}

}  // namespace

void reset() {
  const std::lock_guard<std::mutex> lock(mutex);
  recorded.clear();
  flag = 0;
  reads = 0;
  offAt = 0;
}

void setTracing(bool enabled) { flag = enabled ? 1 : 0; }

unsigned flagReads() { return reads; }

void switchOffAtFlagRead(unsigned read) { offAt = read == 0 ? 0 : reads + read; }

std::vector<Call> calls() {
  const std::lock_guard<std::mutex> lock(mutex);
  return recorded;
}

std::vector<std::string> traceLines() {
  std::vector<std::string> lines;
  for (const Call& call : calls()) {
    if (call.function == "__TraceA") lines.push_back(call.text);
  }
  return lines;
}

}  // namespace korvex::test::platform_double

using namespace korvex::test::platform_double;

#define KORVEX_RECORD(function, code)        \
  std::va_list arguments;                    \
  va_start(arguments, format);               \
  record(function, code, format, arguments); \
  va_end(arguments)

// A format without arguments may contain a percent sign; the doubles must accept anything.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

extern "C" {

std::uint32_t* __qmxlog_trace_location() {
  const std::lock_guard<std::mutex> lock(mutex);
  if (++reads == offAt) flag = 0;
  return &flag;
}

void __TraceA(const char* format, ...) { KORVEX_RECORD("__TraceA", 0); }
void InfoA(int code, const char* format, ...) { KORVEX_RECORD("InfoA", code); }
void AuthA(int code, const char* format, ...) { KORVEX_RECORD("AuthA", code); }
void WarningA(int code, const char* format, ...) { KORVEX_RECORD("WarningA", code); }
void ErrorA(int code, const char* format, ...) { KORVEX_RECORD("ErrorA", code); }
}
