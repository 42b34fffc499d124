#ifndef KORVEX_SUPPORT_TRACE_H
#define KORVEX_SUPPORT_TRACE_H

#include <atomic>
#include <cstdint>
#include <qmx/trace.h>

namespace korvex {

/// The flag's address, which never changes; null until isTracing() was first called.
inline std::atomic<const std::uint32_t*> knownTraceFlag{nullptr};

/// Whether tracing is on. Another thread may switch it at any time, so the flag is read atomically,
/// each time.
inline bool isTracing() {
  const std::uint32_t* const flag = __qmxlog_trace_location();
  knownTraceFlag.store(flag, std::memory_order_relaxed);
  return __atomic_load_n(flag, __ATOMIC_RELAXED) != 0;
}

/// Writes a trace line while tracing is on. The format is printf's; in most lines the first value
/// is the name of the function.
template <typename... Values>
void trace(const char* format, Values... values) {
  if (isTracing()) __TraceA(format, values...);
}

/// The opposite of isTracing(), without its call, for code that is as cheap as one. False until
/// isTracing() was first called.
inline bool isKnownUntraced() {
  const std::uint32_t* const flag = knownTraceFlag.load(std::memory_order_relaxed);
  return flag != nullptr && __atomic_load_n(flag, __ATOMIC_RELAXED) == 0;
}

}  // namespace korvex

#endif
