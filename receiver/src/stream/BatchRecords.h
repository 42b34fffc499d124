#ifndef KORVEX_RECEIVER_BATCH_RECORDS_H
#define KORVEX_RECEIVER_BATCH_RECORDS_H

#include <cstdint>

#include "shm/Format.h"
#include "support/BigEndian.h"

namespace korvex::receiver {

/// What a daemon needs of one record.
struct Record {
  std::uint32_t type;
  std::uint32_t size;  ///< of the data
  std::uint64_t sequence;
  const unsigned char* data;  ///< inside the batch; not null, even if there is none
};

/// The records of a batch that BatchCheck found sound, in order. The bytes outlive it.
///
/// A daemon that takes small records spends its time here, so only the fields it needs are read,
/// and nothing is kept in between.
class BatchRecords {
 public:
  explicit BatchRecords(const unsigned char* checked) noexcept
      : position_(checked + kMetaDataSize) {
    getBig32(checked + kEntryCountOffset, left_);
  }

  bool isEmpty() const noexcept { return left_ == 0; }

  /// The next record. There must be one.
  Record take() noexcept {
    Record record;
    getBig32(getBig32(position_, record.type), record.size);
    getBig64(position_ + kSequenceOffset, record.sequence);
    record.data = position_ + kHeaderSize;
    position_ = record.data + record.size;
    --left_;
    return record;
  }

 private:
  const unsigned char* position_;
  std::uint32_t left_ = 0;
};

}  // namespace korvex::receiver

#endif
