#ifndef KORVEX_SHM_COMMON_H
#define KORVEX_SHM_COMMON_H

#include <cstdint>
#include <iosfwd>

#include <qmx/error.h>

#include "korvex/Export.h"

/// How a stream is cut into segments; travels in every header. The type has a fixed width, so any
/// 32-bit value can be stored and compared, also one that has no name.
enum korvex_seg_state_t : std::int32_t {
  /// A segment-data record carries at most korvex::MAX_SEGMENT_SIZE bytes.
  KORVEX_SEG_STATE_LIMITED = 0,
  /// Segment-data records are bounded by the batch only.
  KORVEX_SEG_STATE_UNLIMITED = 1
};

namespace korvex {

/// The largest data length of one record, in bytes, unless its segState is
/// KORVEX_SEG_STATE_UNLIMITED.
constexpr std::uint32_t MAX_SEGMENT_SIZE = 131072;

/// The header in front of every record's data inside a batch.
///
/// A plain value. In memory it is in host order; across the process boundary it travels as 48
/// big-endian bytes, the fields in declaration order without padding.
struct KORVEX_EXPORT qmx_shm_message_t {
  std::uint32_t type;          ///< 0 open, 1 segment data, 2 segment end, 3 close, 4 stop
  std::uint32_t len;           ///< data bytes that follow the header in a batch
  std::uint64_t sequence;      ///< running number of the writer's own records
  std::uint64_t segmentCount;  ///< segments completed before this record
  std::uint32_t segmentEmpty;  ///< 1 while the current segment has had no data, else 0
  std::uint32_t segState;      ///< a korvex_seg_state_t
  std::uint32_t algParam1;     ///< parameters of the segmenting algorithm, carried unread
  std::uint32_t algParam2;
  std::uint32_t algParam3;
  std::uint32_t magic;  ///< 0xaabbccdd in a sound header

  /// All fields 0, but segmentEmpty 1 and the magic in place.
  qmx_shm_message_t();

  /// 48.
  static unsigned long getSerializedSize();

  /// Writes 48 bytes, which the caller guarantees, and returns the first byte after them.
  unsigned char* serializeToBuffer(unsigned char* buffer) const;

  /// Reads 48 bytes, which the caller guarantees, and returns the first byte after them.
  /// A wrong magic throws Ov_ErrnoException with status 32; the fields then hold what was read.
  const unsigned char* deserializeFromBuffer(const unsigned char* buffer);
};

/// One diagnostic line, ten numbers in parentheses. Plain decimal digits, whatever the stream's
/// flags and locale are; neither is changed. A field width is spent without padding anything.
KORVEX_EXPORT std::ostream& operator<<(std::ostream& stream, const qmx_shm_message_t& header);

/// The daemon's reply. Travels as its raw 132 bytes, the status in host order.
struct KORVEX_EXPORT qmx_shm_response_t {
  ov_status_t status;  ///< 0 is success; anything else is raised in the producer
  char message[128];   ///< for people; need not be NUL-terminated when it comes from a daemon

  /// All 132 bytes zero.
  qmx_shm_response_t();

  /// Stores the status and as much of the text, never null, as fits with its NUL. The bytes behind
  /// the NUL keep what they held.
  void assign(ov_status_t status, const char* text);
};

static_assert(sizeof(qmx_shm_response_t) == 132, "travels as raw memory");

}  // namespace korvex

#endif
