#ifndef QMX_SINK_PRIVATE_H
#define QMX_SINK_PRIVATE_H

#include "qmx/sink.h"

namespace qmx {

/// Hands one line to the sink that is set now. A line that the sink fails to take goes to standard
/// error instead. Leaves errno as it was.
void write(const Line& line) noexcept;

/// For a line that could not even be put together.
void reportLostLine() noexcept;

}  // namespace qmx

#endif
