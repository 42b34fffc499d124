#ifndef KORVEX_SHM_BATCH_H
#define KORVEX_SHM_BATCH_H

#include <cstdint>
#include <iosfwd>
#include <queue>

#include "korvex/Export.h"
#include "korvex/ShmCommon.h"

namespace korvex {

/// Many records in one block of memory, sent as one queue message.
///
/// A batch starts with an 8-byte metadata block (magic, number of entries); the records follow back
/// to back, each a 48-byte header and its data. All integers are big-endian. The writer appends and
/// clears; the daemon reads a received block with getEntriesFromBuffer. The buffer is allocated
/// once and never grows. Not copyable; one thread at a time.
///
/// Every error is an Ov_ErrnoException (catch by reference) with a status from korvex/Status.h and
/// an empty location, and leaves the batch unchanged. Buffers must not be null.
class KORVEX_EXPORT ShmBatch {
 public:
  /// The block at the start of a batch.
  struct KORVEX_EXPORT MetaData {
    std::uint32_t magic;       ///< 0xff00ee11 in a sound batch
    std::uint32_t numEntries;  ///< records that follow the block

    /// Sets the magic; no entries.
    MetaData();

    /// 8.
    static unsigned long getSerializedSize();

    /// Writes 8 bytes, for which there must be room, and returns a pointer past them.
    unsigned char* serializeToBuffer(unsigned char* buffer) const;

    /// Reads 8 bytes and returns a pointer past them. A wrong magic throws status 32; the fields
    /// then hold what was read.
    const unsigned char* deserializeFromBuffer(const unsigned char* buffer);
  };

  /// One record: a copy of its header and a pointer to its data. Never owns the data, which belongs
  /// to the producer (writing) or is part of the batch's bytes (reading).
  struct KORVEX_EXPORT Entry {
    qmx_shm_message_t header;   ///< as it is stored, unchecked
    const unsigned char* data;  ///< header.len bytes; null when there are none

    /// Copies the header, keeps the pointer.
    Entry(const qmx_shm_message_t& header, const unsigned char* data);

    /// A placeholder: every header field is 0, even the magic and segmentEmpty. A batch stores such
    /// an entry unchecked, but it cannot be read back.
    explicit Entry(const unsigned char* data);
  };

  /// Allocates `bufferSize` bytes, zero-filled. Fewer than 8 throws status 9; 8 to 55 makes a batch
  /// that cannot hold an entry.
  explicit ShmBatch(unsigned long bufferSize);
  ~ShmBatch();
  ShmBatch(const ShmBatch&) = delete;
  ShmBatch& operator=(const ShmBatch&) = delete;

  /// Throws status 9 when a batch of `bufferSize` bytes could not hold its metadata block.
  static void validBufferSizeAssert(unsigned long bufferSize);

  /// Whether 48 bytes and the entry's data fit into the remaining space.
  bool canStore(const Entry& entry) const;

  /// Appends a copy of the record without checking its magic or type. Throws status 4 if there is
  /// no room, status 9 if the header announces data but the pointer is null.
  void pushBack(const Entry& entry);

  /// Reads an entry back; its data points into the batch. Walks from the first entry, so it takes
  /// time proportional to `index`. Throws status 9 beyond the last entry, status 32 on a damaged
  /// header.
  Entry getEntry(unsigned long index) const;

  /// Replaces the queue's contents with the entries of a batch. Their data points into `buffer`.
  ///
  /// Trusts the block: `size` is only checked against the minimum of 8, and the entry count and
  /// lengths are believed. Foreign bytes must be checked first. Throws status 9 (too small) or 32
  /// (damaged). A damaged metadata block leaves the queue unchanged; after a damaged header the
  /// queue holds the entries before it.
  static void getEntriesFromBuffer(std::queue<Entry>& entries, const unsigned char* buffer,
                                   unsigned long size);

  /// Removes all entries. Their bytes stay in the buffer until they are overwritten.
  void clear();

  /// @{
  /// How many records the batch holds.
  bool empty() const { return metaData_.numEntries == 0; }
  unsigned int getNumEntries() const { return metaData_.numEntries; }
  /// @}

  /// The batch's bytes, getRawSize() of them in use.
  const unsigned char* getRaw() const { return raw_; }

  /// Bytes in use, including the metadata block. Not the capacity.
  unsigned long getRawSize() const { return usedSize_; }

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

/// The record's type and length, and the Adler-32 (RFC 1950) of its data if there is any; for null
/// data it is 1. Plain decimal digits; a field width is consumed without padding anything.
KORVEX_EXPORT std::ostream& operator<<(std::ostream& stream, const ShmBatch::Entry& entry);

/// One line: sizes, then every entry. Takes time quadratic in the number of entries. For a
/// placeholder in the batch it throws as getEntry does, before anything is written. Digits and
/// width as for an entry.
KORVEX_EXPORT std::ostream& operator<<(std::ostream& stream, const ShmBatch& batch);

}  // namespace korvex

#endif
