#ifndef KORVEX_RECORD_TYPE_H
#define KORVEX_RECORD_TYPE_H

#include <cstdint>

namespace korvex {

/// What a record is: the values of a header's `type`. They travel, so they never change.
enum RecordType : std::uint32_t {
  kTypeOpen = 0,         ///< the stream starts
  kTypeSegmentData = 1,  ///< the only record with data
  kTypeSegmentEnd = 2,
  kTypeClose = 3,  ///< the stream ends and is whole
  kTypeStop = 4    ///< the stream ends and is not
};

}  // namespace korvex

#endif
