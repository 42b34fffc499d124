// Any message at all: what the daemon's check lets pass, the library's reader must take apart as a
// decoder does that was written from the format alone.
#include <korvex/ShmBatch.h>

#include <cstring>
#include <vector>

#include "Bytes.h"
#include "stream/BatchCheck.h"

using korvex_fuzz::require;

namespace {

constexpr std::size_t kMetaData = 8;
constexpr std::size_t kHeader = 48;

std::uint64_t bigEndian(const std::uint8_t* bytes, int size) {
  std::uint64_t value = 0;
  for (int i = 0; i < size; ++i) value = value << 8 | bytes[i];
  return value;
}

/// Where each entry starts; false for a message that is no batch.
bool decode(const std::uint8_t* bytes, std::size_t size, std::vector<std::size_t>& starts) {
  starts.clear();
  if (size < kMetaData || bigEndian(bytes, 4) != 0xff00ee11) return false;
  std::size_t at = kMetaData;
  for (std::uint64_t left = bigEndian(bytes + 4, 4); left != 0; --left) {
    if (size - at < kHeader || bigEndian(bytes + at + 44, 4) != 0xaabbccdd) return false;
    const std::uint64_t length = bigEndian(bytes + at + 4, 4);
    if (length > size - at - kHeader) return false;
    starts.push_back(at);
    at += kHeader + length;
  }
  return at == size;
}

void compare(const korvex::ShmBatch::Entry& entry, const std::uint8_t* place) {
  const korvex::qmx_shm_message_t& header = entry.header;
  require(header.type == bigEndian(place, 4), "type");
  require(header.len == bigEndian(place + 4, 4), "len");
  require(header.sequence == bigEndian(place + 8, 8), "sequence");
  require(header.segmentCount == bigEndian(place + 16, 8), "segmentCount");
  require(header.segmentEmpty == bigEndian(place + 24, 4), "segmentEmpty");
  require(header.segState == bigEndian(place + 28, 4), "segState");
  require(header.algParam1 == bigEndian(place + 32, 4), "algParam1");
  require(header.algParam2 == bigEndian(place + 36, 4), "algParam2");
  require(header.algParam3 == bigEndian(place + 40, 4), "algParam3");
  require(entry.data == (header.len == 0 ? nullptr : place + kHeader), "data");
}

/// The header's own way back gives the bytes that it came from.
void packAgain(const korvex::ShmBatch::Entry& entry, const std::uint8_t* place) {
  unsigned char packed[kHeader];
  require(entry.header.serializeToBuffer(packed) == packed + kHeader, "packed size");
  require(std::memcmp(packed, place, kHeader) == 0, "packed header");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static std::vector<std::size_t> starts;
  const bool isBatch = decode(bytes, size, starts);
  const korvexd::BatchCheck check(bytes, size);
  require(check.ok() == isBatch, "the check's verdict");
  require(check.offset() <= size, "the check's offset");
  if (!isBatch) {
    // Composing a text costs more than all the rest, so only some are.
    if (size % 8 == 0) require(!check.text().empty(), "the check's text");
    return 0;
  }
  std::queue<korvex::ShmBatch::Entry> entries;
  korvex::ShmBatch::getEntriesFromBuffer(entries, bytes, size);
  require(entries.size() == starts.size(), "number of entries");
  for (const std::size_t start : starts) {
    compare(entries.front(), bytes + start);
    packAgain(entries.front(), bytes + start);
    entries.pop();
  }
  return 0;
}
