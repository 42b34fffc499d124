#ifndef QMX_STRING_H
#define QMX_STRING_H

#include <cstddef>

#include "qmx/Export.h"

/// @file
/// Text in buffers of a fixed size.

extern "C" {

/// Copies `source` into `destination`, which has room for `capacity` bytes, truncating what does
/// not fit. Always NUL-terminates, unless `capacity` is 0: then nothing is written. Returns
/// `destination`. Neither pointer may be null, and the two must not overlap.
QMX_EXPORT char* qmxstrcpy(char* destination, const char* source, std::size_t capacity);
}

#endif
