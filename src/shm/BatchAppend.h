#ifndef KORVEX_SHM_BATCH_APPEND_H
#define KORVEX_SHM_BATCH_APPEND_H

#include <qmx/error.h>

#include <atomic>

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

/// Keeps the compiler from moving stores from one side to the other. A copy can fault, and a
/// handler that jumps out of it must find nothing of what comes after.
inline void keepStoresApart() noexcept { std::atomic_signal_fence(std::memory_order_seq_cst); }

/// For a record that has room, and data unless its length is 0. Commits after the copy: a producer
/// that maps a file which shrinks may leave the copy by a jump, and refuses the record with that.
[[gnu::always_inline]] inline void ShmBatch::put(const qmx_shm_message_t& header,
                                                 const unsigned char* data,
                                                 std::uint32_t length) noexcept {
  unsigned char* const place = putHeader(writePos_, header);
  if (length != 0) copyShort(place, data, length);
  keepStoresApart();
  writePos_ = place + length;
  usedSize_ += kHeaderSize + length;
  ++metaData_.numEntries;
  putMetaData(raw_, metaData_);
}

/// For a record that has room.
inline void ShmBatch::append(const qmx_shm_message_t& header, const unsigned char* data) {
  if (header.len != 0 && data == nullptr) {
    // The header goes in before the data pointer is checked. A refused entry thus leaves 48 stray
    // bytes behind the used part; the next entry overwrites them.
    putHeader(writePos_, header);
    refuseNullData(header.len);
  }
  put(header, data, header.len);
}

}  // namespace korvex

#endif
