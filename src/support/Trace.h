#ifndef KORVEX_SUPPORT_TRACE_H
#define KORVEX_SUPPORT_TRACE_H

#include <atomic>
#include <cstdint>

#include <qmx/trace.h>

namespace korvex {

/// Where the flag lies, which never changes; null until somebody asked.
inline std::atomic<const std::uint32_t*> knownTraceFlag{nullptr};

/// Whether trace lines are wanted now. Another thread may switch at any time, so the flag is read
/// atomically, and asked for again each time.
inline bool isTracing() {
  const std::uint32_t* const flag = __qmxlog_trace_location();
  knownTraceFlag.store(flag, std::memory_order_relaxed);
  return __atomic_load_n(flag, __ATOMIC_RELAXED) != 0;
}

/// Writes a trace line while tracing is on. The format is printf's, its first value in most lines
/// the name of the function.
template <typename... Values>
void trace(const char* format, Values... values) {
  if (isTracing()) __TraceA(format, values...);
}

/// As isTracing() without a call, for what takes no longer than a call does. Also false when nobody
/// has asked yet.
inline bool isKnownUntraced() {
  const std::uint32_t* const flag = knownTraceFlag.load(std::memory_order_relaxed);
  return flag != nullptr && __atomic_load_n(flag, __ATOMIC_RELAXED) == 0;
}

}  // namespace korvex

#endif
