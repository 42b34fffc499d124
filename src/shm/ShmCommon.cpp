#include "korvex/ShmCommon.h"

#include <cstring>
#include <ostream>
#include <qmx/string.h>

#include "korvex/Status.h"
#include "shm/HeaderBytes.h"
#include "support/BigEndian.h"
#include "support/Text.h"

namespace korvex {

qmx_shm_message_t::qmx_shm_message_t()
    : type(0),
      len(0),
      sequence(0),
      segmentCount(0),
      segmentEmpty(1),
      segState(0),
      algParam1(0),
      algParam2(0),
      algParam3(0),
      magic(kHeaderMagic) {}

unsigned long qmx_shm_message_t::getSerializedSize() { return kHeaderSize; }

unsigned char* qmx_shm_message_t::serializeToBuffer(unsigned char* buffer) const {
  return putHeader(buffer, *this);
}

const unsigned char* qmx_shm_message_t::deserializeFromBuffer(const unsigned char* buffer) {
  buffer = getBig32(buffer, type);
  buffer = getBig32(buffer, len);
  buffer = getBig64(buffer, sequence);
  buffer = getBig64(buffer, segmentCount);
  buffer = getBig32(buffer, segmentEmpty);
  buffer = getBig32(buffer, segState);
  buffer = getBig32(buffer, algParam1);
  buffer = getBig32(buffer, algParam2);
  buffer = getBig32(buffer, algParam3);
  buffer = getBig32(buffer, magic);
  // Checked last, so that the header keeps what was read and a caller can look at it.
  if (magic != kHeaderMagic) {
    throwError(kStatusCorrupt, "Could not deserialize qmx_shm_message from",
               " buffer because the magic value ", magic, " is corrupt (expected=", kHeaderMagic,
               ")");
  }
  return buffer;
}

std::ostream& operator<<(std::ostream& stream, const qmx_shm_message_t& header) {
  stream.width(0);
  // The sequence comes first, unlike on the wire: it is what a reader of a log looks for.
  const std::string text =
      textOf('(', header.sequence, ',', header.type, ',', header.len, ',', header.segState, ',',
             header.segmentCount, ',', header.segmentEmpty, ',', header.algParam1, ',',
             header.algParam2, ',', header.algParam3, ',', header.magic, ')');
  // Unformatted output, so the caller's width, fill, base and locale do not affect the digits.
  return stream.write(text.data(), static_cast<std::streamsize>(text.size()));
}

qmx_shm_response_t::qmx_shm_response_t() : status(0) { std::memset(message, 0, sizeof message); }

void qmx_shm_response_t::assign(ov_status_t newStatus, const char* text) {
  status = newStatus;
  qmxstrcpy(message, text, sizeof message);
}

}  // namespace korvex
