#ifndef QMX_TRACE_H
#define QMX_TRACE_H

#include <cstdint>

#include "qmx/Export.h"

#if defined(__GNUC__)
/// Makes the compiler check a printf format against the arguments that follow it.
#define QMX_PRINTF_FORMAT(formatIndex, firstArgument) \
  __attribute__((format(printf, formatIndex, firstArgument)))
#else
#define QMX_PRINTF_FORMAT(formatIndex, firstArgument)
#endif

/// @file
/// Lines that follow what a program does, while a flag of the process is on.

extern "C" {

/// The address of the process's trace flag: 0 is off, anything else is on. The flag may change at
/// any time and from any thread; read it again before each line.
///
/// A host's own platform must return the same non-null address from the first call to the end of
/// the process: callers keep it and read the flag without another call.
QMX_EXPORT std::uint32_t* __qmxlog_trace_location();

/// Writes one trace line. Does not check the flag: callers do, before they build anything.
///
/// The default implementation never throws. A host's own may throw anything, which propagates like
/// an error of the traced operation. It must not throw in a destructor, which would terminate the
/// process: AutoTrace traces leaving a scope from its own. For the same reason neither this nor the
/// calls of log.h may be cancellation points: disable cancellation around writes.
QMX_EXPORT void __TraceA(const char* format, ...) QMX_PRINTF_FORMAT(1, 2);
}

/// Traces entering and leaving a scope. While tracing is off it costs one flag read and builds
/// nothing. Reads the flag on entry only: a scope that was entered traced is left traced, one that
/// was entered untraced is left untraced.
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
