#ifndef KORVEX_SHM_COMMON_H
#define KORVEX_SHM_COMMON_H

#include <cstdint>
#include <iosfwd>
#include <qmx/error.h>

#include "korvex/Export.h"

/// @file
/// What travels between a producer and its daemon: record headers and replies.

/// How a stream is split into segments; sent in every header. The type has a fixed width, so any
/// 32-bit value can be stored and compared, even one without a name.
enum korvex_seg_state_t : std::int32_t {
  /// A segment-data record carries at most korvex::MAX_SEGMENT_SIZE bytes.
  KORVEX_SEG_STATE_LIMITED = 0,
  /// Only the batch limits the size of segment-data records.
  KORVEX_SEG_STATE_UNLIMITED = 1
};

namespace korvex {

/// The largest data length of one record, in bytes, unless its segState is
/// KORVEX_SEG_STATE_UNLIMITED.
constexpr std::uint32_t MAX_SEGMENT_SIZE = 131072;

/// The header in front of every record's data inside a batch.
///
/// A plain value. In memory it is in host order; between processes it is 48 big-endian bytes, the
/// fields in declaration order without padding.
struct KORVEX_EXPORT qmx_shm_message_t {
  std::uint32_t type;          ///< 0 open, 1 segment data, 2 segment end, 3 close, 4 stop
  std::uint32_t len;           ///< data bytes that follow the header in a batch
  std::uint64_t sequence;      ///< running number of the writer's own records
  std::uint64_t segmentCount;  ///< segments completed before this record
  std::uint32_t segmentEmpty;  ///< 1 while the current segment has had no data, else 0
  std::uint32_t segState;      ///< a korvex_seg_state_t
  std::uint32_t algParam1;     ///< a parameter of the segmenting algorithm; not interpreted
  std::uint32_t algParam2;     ///< another
  std::uint32_t algParam3;     ///< another
  std::uint32_t magic;         ///< 0xaabbccdd in a sound header

  /// All fields 0, except segmentEmpty, which is 1, and the magic.
  qmx_shm_message_t();

  /// 48.
  static unsigned long getSerializedSize();

  /// Writes 48 bytes, for which there must be room, and returns a pointer past them.
  unsigned char* serializeToBuffer(unsigned char* buffer) const;

  /// Reads 48 bytes, which must be there, and returns a pointer past them. A wrong magic throws
  /// Ov_ErrnoException with status 32; the fields then hold what was read.
  const unsigned char* deserializeFromBuffer(const unsigned char* buffer);
};

/// One diagnostic line, ten numbers in parentheses. Plain decimal digits, whatever the stream's
/// flags and locale; neither is changed. A field width is consumed without padding anything.
KORVEX_EXPORT std::ostream& operator<<(std::ostream& stream, const qmx_shm_message_t& header);

/// The daemon's reply. Sent as its raw 132 bytes, the status in host order.
struct KORVEX_EXPORT qmx_shm_response_t {
  ov_status_t status;  ///< 0 is success; anything else is raised in the producer
  char message[128];   ///< for people; a daemon need not NUL-terminate it

  /// All 132 bytes zero.
  qmx_shm_response_t();

  /// Stores the status and as much of the text as fits with its NUL. The text must not be null. The
  /// bytes after the NUL keep what they held.
  void assign(ov_status_t status, const char* text);
};

static_assert(sizeof(qmx_shm_response_t) == 132, "travels as raw memory");

}  // namespace korvex

#endif
