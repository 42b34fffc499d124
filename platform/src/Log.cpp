#include "qmx/log.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "Format.h"
#include "NoCancellation.h"
#include "Sink.h"
#include "qmx/trace.h"

namespace {

std::uint32_t traceFlag = 0;

/// The formatted text; the bare format if formatting fails (a wide character that the locale cannot
/// represent) or would store something. A raw line says more than none.
std::string formatted(const char* format, std::va_list arguments) {
  if (format == nullptr) return "(null format)";
  if (qmx::storesThroughArgument(format)) return format;
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) return format;
  std::string text(static_cast<std::size_t>(length), '\0');
  std::vsnprintf(&text[0], text.size() + 1, format, arguments);
  return text;
}

void writeFormatted(qmx::Level level, int code, const char* format,
                    std::va_list arguments) noexcept {
  const qmx::NoCancellation noCancellation;
  try {
    qmx::write({level, code, formatted(format, arguments).c_str()});
  } catch (...) {
    qmx::reportLostLine();
  }
}

}  // namespace

// A macro, because only the called function can access its own variable arguments.
#define QMX_WRITE(level, code)                                \
  std::va_list arguments;                                     \
  va_start(arguments, format);                                \
  writeFormatted(qmx::Level::level, code, format, arguments); \
  va_end(arguments)

void __TraceA(const char* format, ...) { QMX_WRITE(Trace, 0); }
void InfoA(int code, const char* format, ...) { QMX_WRITE(Info, code); }
void AuthA(int code, const char* format, ...) { QMX_WRITE(Auth, code); }
void WarningA(int code, const char* format, ...) { QMX_WRITE(Warning, code); }
void ErrorA(int code, const char* format, ...) { QMX_WRITE(Error, code); }

std::uint32_t* __qmxlog_trace_location() { return &traceFlag; }

void qmx::setTracing(bool enabled) {
  // Relaxed: the flag guards nothing, and one line more or less around the change does not matter.
  __atomic_store_n(&traceFlag, enabled ? 1u : 0u, __ATOMIC_RELAXED);
}
