#ifndef KORVEX_STATUS_H
#define KORVEX_STATUS_H

#include <qmx/error.h>

/// @file
/// The status codes that the library raises, for comparing with Ov_ErrnoException::getStatus().
///
/// The numbers never change. A daemon's reply is raised with the daemon's own status, which may be
/// any number, including one of these.
namespace korvex {

/// A batch has no room for an entry.
constexpr ov_status_t kStatusNoRoom = 4;

/// A batch buffer below 8 bytes, null data where the header announces some, an entry index out of
/// range, a timeout outside 1 to 86400.
constexpr ov_status_t kStatusInvalidArgument = 9;

/// The send queue stayed full, or locked, until the deadline.
constexpr ov_status_t kStatusTimedOut = 15;

/// A header or a metadata block with a wrong magic.
constexpr ov_status_t kStatusCorrupt = 32;

/// A segment operation on a writer that is not open, or segment data under an unknown algorithm.
constexpr ov_status_t kStatusWrongState = 44;

/// Data longer than MAX_SEGMENT_SIZE in a record that is subject to that limit.
constexpr ov_status_t kStatusTooLarge = 85;

/// A record that does not fit even an empty batch.
constexpr ov_status_t kStatusDoesNotFit = 89;

}  // namespace korvex

#endif
