#ifndef QMX_TRACE_H
#define QMX_TRACE_H

#include <cstdint>

#include "qmx/Export.h"

#if defined(__GNUC__)
#define QMX_PRINTF_FORMAT(formatIndex, firstArgument) \
  __attribute__((format(printf, formatIndex, firstArgument)))
#else
#define QMX_PRINTF_FORMAT(formatIndex, firstArgument)
#endif

extern "C" {

/// Where the process's trace-enabled flag lives: 0 is off, anything else is on. The flag may change
/// at any time and from any thread; read it again before each line.
///
/// A rule for a platform of the host's own: every call returns the same address, never null, from
/// the first call to the end of the process. Callers keep it and read there without another call.
QMX_EXPORT std::uint32_t* __qmxlog_trace_location();

/// Writes one trace line. Does not look at the flag: callers do, before they build anything.
///
/// The default platform's never throws. A host's own may throw anything: it leaves the operation
/// that is traced as an error of that operation would. Only in a destructor it must not, for that
/// ends the process: AutoTrace writes the line that leaves a scope in its own. For the same reason
/// neither this nor a call of log.h may be a cancellation point: disable cancellation around
/// writes.
QMX_EXPORT void __TraceA(const char* format, ...) QMX_PRINTF_FORMAT(1, 2);
}

/// Traces entering and leaving a scope. While tracing is off it costs one flag read and builds
/// nothing. A scope that was entered untraced is left untraced.
class AutoTrace {
 public:
  /// Keeps the pointer, so the name must outlive the scope; a string literal does.
  explicit AutoTrace(const char* name) : name_(nullptr) {
    if (__atomic_load_n(__qmxlog_trace_location(), __ATOMIC_RELAXED) != 0) enter(name);
  }
  ~AutoTrace() {
    if (name_ != nullptr) leave();
  }
  AutoTrace(const AutoTrace&) = delete;
  AutoTrace& operator=(const AutoTrace&) = delete;

 private:
  void enter(const char* name) {
    name_ = name;
    __TraceA("%s: enter", name);
  }
  void leave() { __TraceA("%s: leave", name_); }

  const char* name_;
};

#endif
