#include "korvex/ShmBatch.h"

#include <ostream>
#include <sstream>

#include "korvex/Status.h"
#include "shm/ShmBatchInline.h"
#include "support/Adler32.h"
#include "support/BigEndian.h"
#include "support/Text.h"
#include "support/Trace.h"

namespace korvex {
namespace {

/// Reads the entry at `position` and moves the position past it.
ShmBatch::Entry takeEntry(const unsigned char*& position, qmx_shm_message_t& header) {
  const unsigned char* const data = header.deserializeFromBuffer(position);
  position = data + header.len;
  return ShmBatch::Entry(header, header.len != 0 ? data : nullptr);
}

void printEntry(std::ostream& stream, const ShmBatch::Entry& entry) {
  stream << "type=" << entry.header.type << ", len=" << entry.header.len;
  if (entry.header.len != 0) stream << ", crc=" << adler32(entry.data, entry.header.len);
}

std::ostream& writeTo(std::ostream& stream, const std::string& text) {
  return stream.write(text.data(), static_cast<std::streamsize>(text.size()));
}

}  // namespace

ShmBatch::MetaData::MetaData() : magic(kMetaDataMagic), numEntries(0) {}

unsigned long ShmBatch::MetaData::getSerializedSize() { return kMetaDataSize; }

unsigned char* ShmBatch::MetaData::serializeToBuffer(unsigned char* buffer) const {
  return putMetaData(buffer, *this);
}

const unsigned char* ShmBatch::MetaData::deserializeFromBuffer(const unsigned char* buffer) {
  buffer = getBig32(getBig32(buffer, magic), numEntries);
  if (magic != kMetaDataMagic) {
    throwError(kStatusCorrupt, "Could not deserialize ShmBatch::MetaData from",
               " buffer because the magic value ", magic, " is corrupt (expected=", kMetaDataMagic,
               ")");
  }
  return buffer;
}

ShmBatch::Entry::Entry(const qmx_shm_message_t& entryHeader, const unsigned char* entryData)
    : header(entryHeader), data(entryData) {}

ShmBatch::Entry::Entry(const unsigned char* entryData) : data(entryData) {
  header.segmentEmpty = 0;
  header.magic = 0;
}

ShmBatch::ShmBatch(unsigned long bufferSize)
    : bufferSize_(bufferSize), raw_(nullptr), usedSize_(kMetaDataSize), writePos_(nullptr) {
  // Traced before the check, so that the log shows the size that was refused.
  trace("%s: bufferSize=%u", "ShmBatch", static_cast<unsigned int>(bufferSize));
  validBufferSizeAssert(bufferSize);
  raw_ = new unsigned char[bufferSize]();
  metaData_.serializeToBuffer(raw_);
  writePos_ = raw_ + kMetaDataSize;
}

ShmBatch::~ShmBatch() { delete[] raw_; }  // GCOVR_EXCL_BR_LINE: asks for null, which it never is

void ShmBatch::validBufferSizeAssert(unsigned long bufferSize) {
  // The metadata block alone is enough. A batch that can hold no entry is allowed.
  if (bufferSize < kMetaDataSize) {
    throwError(kStatusInvalidArgument, "Buffer size ", bufferSize,
               " is invalid because it is smaller than the minimum required buffer size of ",
               kMetaDataSize);
  }
}

bool ShmBatch::canStore(const Entry& entry) const { return hasRoom(entry.header.len); }

void ShmBatch::pushBack(const Entry& entry) {
  if (!canStore(entry)) {
    throwError(kStatusNoRoom,
               "Could not add new batch entry because there is no room for it in the buffer");
  }
  append(entry.header, entry.data);
}

void ShmBatch::refuseNullData(std::uint32_t length) {
  throwError(kStatusInvalidArgument, "Invalid header; the specified length of data is ", length,
             " but the data pointer is NULL");
}

ShmBatch::Entry ShmBatch::getEntry(unsigned long index) const {
  if (index >= metaData_.numEntries) {
    throwError(kStatusInvalidArgument, "Cannot get entry because specified index ", index,
               " is outside the range of available entries ", metaData_.numEntries);
  }
  const unsigned char* position = raw_ + kMetaDataSize;
  qmx_shm_message_t header;
  for (unsigned long i = 0; i < index; ++i) takeEntry(position, header);
  return takeEntry(position, header);
}

void ShmBatch::getEntriesFromBuffer(std::queue<Entry>& entries, const unsigned char* buffer,
                                    unsigned long size) {
  validBufferSizeAssert(size);
  MetaData found;
  const unsigned char* position = found.deserializeFromBuffer(buffer);
  // Only now: a buffer that is not a batch leaves the caller's queue unchanged.
  entries = std::queue<Entry>();
  qmx_shm_message_t header;
  for (std::uint32_t i = 0; i < found.numEntries; ++i) entries.push(takeEntry(position, header));
}

void ShmBatch::clear() {
  usedSize_ = kMetaDataSize;
  metaData_.numEntries = 0;
  writePos_ = raw_ + kMetaDataSize;
  metaData_.serializeToBuffer(raw_);
}

std::ostream& operator<<(std::ostream& stream, const ShmBatch::Entry& entry) {
  stream.width(0);
  std::ostringstream text = plainStream();
  printEntry(text, entry);
  return writeTo(stream, text.str());
}

std::ostream& operator<<(std::ostream& stream, const ShmBatch& batch) {
  stream.width(0);
  std::ostringstream text = plainStream();
  text << "ShmBatch: entries=" << batch.getNumEntries() << ", bufferSize=" << batch.bufferSize_
       << ", used=" << batch.usedSize_;
  for (unsigned long i = 0; i < batch.getNumEntries(); ++i) {
    text << ", [" << i << "]: ";
    printEntry(text, batch.getEntry(i));
  }
  return writeTo(stream, text.str());
}

}  // namespace korvex
