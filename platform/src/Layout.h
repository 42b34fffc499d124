#ifndef QMX_LAYOUT_H
#define QMX_LAYOUT_H

#include <string>

#include "qmx/sink.h"

namespace qmx {

/// The line as it is written to a file: time, level, process id, code and text, without a line end.
std::string layOut(const Line& line);

/// The same without time and process id, for a log that adds both itself.
std::string layOutBriefly(const Line& line);

}  // namespace qmx

#endif
