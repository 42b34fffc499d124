#ifndef QMX_SINK_PRIVATE_H
#define QMX_SINK_PRIVATE_H

#include "qmx/sink.h"

namespace qmx {

/// Hands one line to the sink that is set now.
void write(const Line& line);

}  // namespace qmx

#endif
