#ifndef QMX_STRING_H
#define QMX_STRING_H

#include <cstddef>

#include "qmx/Export.h"

extern "C" {

/// Copies `source` into `destination`, which has room for `capacity` bytes. What does not fit is
/// cut; the result is always NUL-terminated, unless `capacity` is 0, when nothing is written.
/// Returns `destination`. Neither pointer may be null, and the two must not overlap.
QMX_EXPORT char* qmxstrcpy(char* destination, const char* source, std::size_t capacity);
}

#endif
