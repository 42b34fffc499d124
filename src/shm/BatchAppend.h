#ifndef KORVEX_SHM_BATCH_APPEND_H
#define KORVEX_SHM_BATCH_APPEND_H

#include <qmx/error.h>

#include "korvex/ShmBatch.h"
#include "shm/HeaderBytes.h"
#include "support/ShortCopy.h"

// Appending a record, inline for the batch and the writer alike: for a short record a call costs
// more than the copy.
namespace korvex {

inline unsigned char* putMetaData(unsigned char* bytes,
                                  const ShmBatch::MetaData& metaData) noexcept {
  return putBig64(bytes, joined(metaData.magic, metaData.numEntries));
}

/// 64-bit: a length may be anything up to 2^32 - 1 and must not wrap.
inline bool ShmBatch::hasRoom(std::uint32_t length) const noexcept {
  return std::uint64_t{length} + kHeaderSize <= bufferSize_ - usedSize_;
}

/// For a record that has room.
inline void ShmBatch::append(const qmx_shm_message_t& header, const unsigned char* data) {
  const std::uint32_t length = header.len;
  unsigned char* place = writePos_;
  if (length != 0 && data == nullptr) {
    // The header goes in before the data pointer is checked. A refused entry thus leaves 48 stray
    // bytes behind the used part; the next entry overwrites them.
    putHeader(place, header);
    refuseNullData(length);
  }
  writePos_ = place + kHeaderSize + length;
  usedSize_ += kHeaderSize + length;
  ++metaData_.numEntries;
  putMetaData(raw_, metaData_);
  place = putHeader(place, header);
  // Last, so that nothing has to be kept over the call.
  if (length != 0) copyShort(place, data, length);
}

}  // namespace korvex

#endif
