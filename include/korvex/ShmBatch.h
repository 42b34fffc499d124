#ifndef KORVEX_SHM_BATCH_H
#define KORVEX_SHM_BATCH_H

#include <cstdint>
#include <iosfwd>
#include <queue>

#include "korvex/Export.h"
#include "korvex/ShmCommon.h"

namespace korvex {

/// Many records in one block of memory, which travels as one queue message.
///
/// A batch starts with an 8-byte metadata block (magic, number of entries); behind it the records
/// are packed back to back, each a 48-byte header and its data. All integers are big-endian. The
/// writer appends and clears; the daemon takes a received block apart with getEntriesFromBuffer.
/// The buffer is allocated once and never grows. Not copyable; one thread at a time.
///
/// Every error is an Ov_ErrnoException (catch by reference) with a status of korvex/Status.h and an
/// empty location, and leaves the batch as it was. Buffers must not be null.
class KORVEX_EXPORT ShmBatch {
 public:
  /// The block at the start of a batch.
  struct KORVEX_EXPORT MetaData {
    std::uint32_t magic;  ///< 0xff00ee11 in a sound batch
    std::uint32_t numEntries;

    /// The magic in place, no entries.
    MetaData();

    /// 8.
    static unsigned long getSerializedSize();

    /// Writes 8 bytes, which the caller guarantees, and returns the first byte after them.
    unsigned char* serializeToBuffer(unsigned char* buffer) const;

    /// Reads 8 bytes and returns the first byte after them. A wrong magic throws status 32; the
    /// fields then hold what was read.
    const unsigned char* deserializeFromBuffer(const unsigned char* buffer);
  };

  /// One record as it is handed around: a copy of its header and where its data is. Never owns the
  /// data, which stays with the producer (writing) or in the batch's bytes (reading).
  struct KORVEX_EXPORT Entry {
    qmx_shm_message_t header;
    const unsigned char* data;  ///< header.len bytes; null when there are none

    Entry(const qmx_shm_message_t& header, const unsigned char* data);

    /// A place holder: every header field is 0, the magic and segmentEmpty too. A batch stores such
    /// an entry unseen, but nobody can read it back.
    explicit Entry(const unsigned char* data);
  };

  /// Allocates `bufferSize` bytes and fills them with zeros. Fewer than 8 throw status 9; what is
  /// between 8 and 55 makes a batch that holds no entry.
  explicit ShmBatch(unsigned long bufferSize);
  ~ShmBatch();
  ShmBatch(const ShmBatch&) = delete;
  ShmBatch& operator=(const ShmBatch&) = delete;

  /// Throws status 9 when a batch of `bufferSize` bytes could not hold its metadata block.
  static void validBufferSizeAssert(unsigned long bufferSize);

  /// Whether 48 bytes and the entry's data fit into what is left.
  bool canStore(const Entry& entry) const;

  /// Appends a copy of the record; its magic and type are not looked at. Throws status 4 without
  /// room, status 9 for data that is announced but null.
  void pushBack(const Entry& entry);

  /// Reads an entry back; its data points into the batch. Walks from the first entry, so it costs
  /// time in proportion to `index`. Throws status 9 beyond the last entry, status 32 on a damaged
  /// header.
  Entry getEntry(unsigned long index) const;

  /// Replaces the queue's contents by the entries of a batch. Their data points into `buffer`.
  ///
  /// The walk trusts the block: `size` is only held against the minimum of 8, the entry count and
  /// the lengths are believed. Bytes from elsewhere must be checked first. Throws status 9 (too
  /// small) or 32 (damaged). A damaged metadata block leaves the queue alone; on a damaged header
  /// it holds the entries before that one.
  static void getEntriesFromBuffer(std::queue<Entry>& entries, const unsigned char* buffer,
                                   unsigned long size);

  /// Forgets all entries. Their bytes stay behind the metadata block until they are overwritten.
  void clear();

  bool empty() const { return metaData_.numEntries == 0; }

  /// The batch's bytes, getRawSize() of them in use.
  const unsigned char* getRaw() const { return raw_; }

  /// Bytes in use, the metadata block included. Not the capacity.
  unsigned long getRawSize() const { return usedSize_; }

  unsigned int getNumEntries() const { return metaData_.numEntries; }

 private:
  friend KORVEX_EXPORT std::ostream& operator<<(std::ostream& stream, const ShmBatch& batch);
  friend class ShmWriter;

  KORVEX_NO_EXPORT bool hasRoom(std::uint32_t length) const noexcept;
  KORVEX_NO_EXPORT void append(const qmx_shm_message_t& header, const unsigned char* data);
  KORVEX_NO_EXPORT void put(const qmx_shm_message_t& header, const unsigned char* data,
                            std::uint32_t length) noexcept;
  [[noreturn]] KORVEX_NO_EXPORT static void refuseNullData(std::uint32_t length);

  // The order of the members is part of the binary interface.
  unsigned long bufferSize_;
  unsigned char* raw_;
  unsigned long usedSize_;
  MetaData metaData_;
  unsigned char* writePos_;
};

/// The record's type and length, and the Adler-32 (RFC 1950) of its data when there is any; of null
/// data it is 1. Plain decimal digits; a field width is spent without padding anything.
KORVEX_EXPORT std::ostream& operator<<(std::ostream& stream, const ShmBatch::Entry& entry);

/// One line: sizes, then every entry. Takes time in proportion to the square of the entries. Throws
/// as getEntry does for a place holder in the batch, before anything is written. Digits and width
/// as for an entry.
KORVEX_EXPORT std::ostream& operator<<(std::ostream& stream, const ShmBatch& batch);

}  // namespace korvex

#endif
