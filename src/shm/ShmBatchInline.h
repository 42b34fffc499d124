#ifndef KORVEX_SHM_BATCH_INLINE_H
#define KORVEX_SHM_BATCH_INLINE_H

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstring>
#include <qmx/error.h>

#include "korvex/ShmBatch.h"
#include "shm/HeaderBytes.h"

// Appends a record; inline for both the batch and the writer, since for a short record a call costs
// more than the copy.
namespace korvex {

constexpr std::size_t kCopiedWord = 16;
constexpr std::size_t kLongestCopyInPlace = 8 * kCopiedWord;

/// Whether a block is copied inline, because a call would cost more than the copy: 16 to 128 bytes.
inline bool isCopiedInPlace(std::size_t size) noexcept {
  return size >= kCopiedWord && size <= kLongestCopyInPlace;
}

inline void copyWord(unsigned char* to, const unsigned char* from) noexcept {
  std::memcpy(to, from, kCopiedWord);
}

/// Copies like memcpy.
inline void copyShort(unsigned char* to, const unsigned char* from, std::size_t size) noexcept {
  if (!isCopiedInPlace(size)) {
    std::memcpy(to, from, size);
    return;
  }
  // The last word overlaps the one before it, unless the size is a multiple of a word.
  for (std::size_t at = 0; at < size - kCopiedWord; at += kCopiedWord) copyWord(to + at, from + at);
  copyWord(to + size - kCopiedWord, from + size - kCopiedWord);
}

inline unsigned char* putMetaData(unsigned char* bytes,
                                  const ShmBatch::MetaData& metaData) noexcept {
  return putBig64(bytes, joined(metaData.magic, metaData.numEntries));
}

/// 64-bit: a length may be anything up to 2^32 - 1 and must not wrap.
inline bool ShmBatch::hasRoom(std::uint32_t length) const noexcept {
  return std::uint64_t{length} + kHeaderSize <= bufferSize_ - usedSize_;
}

/// Keeps the compiler from moving stores across it. A copy can fault, and a handler that jumps out
/// of it must not find later stores already done.
inline void keepStoresApart() noexcept { std::atomic_signal_fence(std::memory_order_seq_cst); }

/// The record must fit and have data unless its length is 0. Commits after the copy: a producer
/// whose mapped input file shrinks may jump out of the copy (SIGBUS), and the record is then not in
/// the batch.
[[gnu::always_inline]] inline void ShmBatch::put(const qmx_shm_message_t& header,
                                                 const unsigned char* data,
                                                 std::uint32_t length) noexcept {
  assert(hasRoom(length) && (length == 0 || data != nullptr));
  unsigned char* const place = putHeader(writePos_, header);
  keepStoresApart();  // what the caller has stored stays stored, above all the sequence number
  if (length != 0) copyShort(place, data, length);  // GCOVR_EXCL_BR_LINE: some callers have none
  keepStoresApart();
  writePos_ = place + length;
  usedSize_ += kHeaderSize + length;
  ++metaData_.numEntries;
  putMetaData(raw_, metaData_);
}

/// The record must fit.
inline void ShmBatch::append(const qmx_shm_message_t& header, const unsigned char* data) {
  assert(hasRoom(header.len));
  if (header.len != 0 && data == nullptr) {
    // The header goes in before the data pointer is checked. A refused entry thus leaves 48 stray
    // bytes after the used part; the next entry overwrites them.
    putHeader(writePos_, header);
    refuseNullData(header.len);
  }
  put(header, data, header.len);
}

}  // namespace korvex

#endif
