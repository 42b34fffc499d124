#ifndef QMX_SINK_PRIVATE_H
#define QMX_SINK_PRIVATE_H

#include "qmx/sink.h"

namespace qmx {

/// Writes one line to the current sink, or to standard error if the sink fails. Preserves errno.
void write(const Line& line) noexcept;

/// For a line that could not even be formatted.
void reportLostLine() noexcept;

}  // namespace qmx

#endif
