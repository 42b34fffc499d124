// Any message at all: what the daemon's check lets pass, the library's reader must take apart as a
// decoder does that was written from the format alone.
#include <cstring>
#include <korvex/ShmBatch.h>
#include <vector>

#include "fuzz/Input.h"
#include "korvex/receiver/BatchCheck.h"
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
  for (const std::size_t start : starts) {
    compare(entries.front(), bytes + start);
    packAgain(entries.front(), bytes + start);
    entries.pop();
  }
  return 0;
}
