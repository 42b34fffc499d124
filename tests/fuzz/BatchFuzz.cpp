// Any message at all: what the daemon's check lets pass, the library's reader and the daemon's own
// must take apart as a decoder does that was written from the format alone.
#include <cstring>
#include <korvex/ShmBatch.h>
#include <vector>

#include "fuzz/Input.h"
#include "korvex/receiver/BatchCheck.h"
#include "stream/BatchRecords.h"
#include "support/WireFormat.h"

using korvex::ShmBatch;
using namespace korvex::test;

namespace {

void compare(const ShmBatch::Entry& entry, const std::uint8_t* place) {
  const std::uint8_t* at = place;
  forEachField(entry.header, [&at](auto field) {
    require(field == bigEndianAt<decltype(field)>(at), "a field of the header");
    at += sizeof field;
  });
  require(entry.data == (entry.header.len == 0 ? nullptr : at), "data");
}

void compare(const korvex::receiver::Record& record, const ShmBatch::Entry& entry,
             const std::uint8_t* place) {
  require(record.type == entry.header.type, "a record's type");
  require(record.size == entry.header.len, "a record's size");
  require(record.sequence == entry.header.sequence, "a record's sequence");
  require(record.data == place + kHeaderSize, "where a record's data is");
}

/// The header's own way back gives the bytes that it came from.
void packAgain(const ShmBatch::Entry& entry, const std::uint8_t* place) {
  unsigned char packed[kHeaderSize];
  require(entry.header.serializeToBuffer(packed) == packed + kHeaderSize, "packed size");
  require(std::memcmp(packed, place, kHeaderSize) == 0, "packed header");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static std::vector<std::size_t> starts;
  const bool isBatch = decodeBatch(bytes, size, starts);
  const korvex::receiver::BatchCheck check(bytes, size);
  require(check.ok() == isBatch, "the check's verdict");
  require(check.offset() <= size, "the check's offset");
  if (!isBatch) {
    // Composing a text costs more than all the rest, so only some are.
    if (size % 8 == 0) require(!check.text().empty(), "the check's text");
    return 0;
  }
  std::queue<ShmBatch::Entry> entries;
  ShmBatch::getEntriesFromBuffer(entries, bytes, size);
  require(entries.size() == starts.size(), "number of entries");
  korvex::receiver::BatchRecords records(bytes);
  for (const std::size_t start : starts) {
    require(!records.isEmpty(), "as many records");
    compare(entries.front(), bytes + start);
    compare(records.take(), entries.front(), bytes + start);
    packAgain(entries.front(), bytes + start);
    entries.pop();
  }
  require(records.isEmpty(), "no further record");
  return 0;
}
