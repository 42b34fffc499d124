#ifndef KORVEX_SUPPORT_TRACE_H
#define KORVEX_SUPPORT_TRACE_H

#include <qmx/trace.h>

namespace korvex {

/// Whether trace lines are wanted now. Another thread may switch at any time, so the flag is read
/// atomically, and asked for anew each time; that is one plain load.
inline bool isTracing() {
  return __atomic_load_n(__qmxlog_trace_location(), __ATOMIC_RELAXED) != 0;
}

}  // namespace korvex

#endif
