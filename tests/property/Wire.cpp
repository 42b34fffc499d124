#include "property/Wire.h"

namespace property {
namespace {

Bytes big(std::uint64_t value, unsigned size) {
  Bytes bytes;
  for (unsigned i = size; i > 0; --i) bytes += static_cast<char>(value >> 8 * (i - 1));
  return bytes;
}

/// Reads numbers one after the other.
class Cursor {
 public:
  Cursor(const Bytes& bytes, std::size_t offset) : bytes_(bytes), offset_(offset) {}

  std::uint64_t take(unsigned size) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < size; ++i) {
      value = value * 256 + static_cast<unsigned char>(bytes_.at(offset_++));
    }
    return value;
  }
  std::uint32_t take32() { return static_cast<std::uint32_t>(take(4)); }

 private:
  const Bytes& bytes_;
  std::size_t offset_;
};

}  // namespace

std::vector<Parameter> headerParameters() {
  return {{"type", 0},  {"len", 0}, {"sequence", 0}, {"count", 0}, {"empty", 1},
          {"state", 0}, {"p1", 0},  {"p2", 0},       {"p3", 0},    {"magic", kSoundRecord}};
}

Record recordOf(const Operation& operation) {
  Record record;
  record.type = operation.low("type");
  record.len = operation.low("len");
  record.sequence = operation["sequence"];
  record.segmentCount = operation["count"];
  record.segmentEmpty = operation.low("empty");
  record.segState = operation.low("state");
  record.algParam1 = operation.low("p1");
  record.algParam2 = operation.low("p2");
  record.algParam3 = operation.low("p3");
  record.magic = operation.low("magic");
  return record;
}

Bytes big32(std::uint32_t value) { return big(value, 4); }

Bytes bytesOf(const Record& record) {
  return big(record.type, 4) + big(record.len, 4) + big(record.sequence, 8) +
         big(record.segmentCount, 8) + big(record.segmentEmpty, 4) + big(record.segState, 4) +
         big(record.algParam1, 4) + big(record.algParam2, 4) + big(record.algParam3, 4) +
         big(record.magic, 4);
}

Record recordFrom(const Bytes& bytes, std::size_t offset) {
  Cursor cursor(bytes, offset);
  Record record;
  record.type = cursor.take32();
  record.len = cursor.take32();
  record.sequence = cursor.take(8);
  record.segmentCount = cursor.take(8);
  record.segmentEmpty = cursor.take32();
  record.segState = cursor.take32();
  record.algParam1 = cursor.take32();
  record.algParam2 = cursor.take32();
  record.algParam3 = cursor.take32();
  record.magic = cursor.take32();
  return record;
}

std::string printed(const Record& record) {
  std::string text = "(" + std::to_string(record.sequence);
  for (const std::uint64_t value :
       {std::uint64_t{record.type}, std::uint64_t{record.len}, std::uint64_t{record.segState},
        record.segmentCount, std::uint64_t{record.segmentEmpty}, std::uint64_t{record.algParam1},
        std::uint64_t{record.algParam2}, std::uint64_t{record.algParam3},
        std::uint64_t{record.magic}}) {
    text += "," + std::to_string(value);
  }
  return text + ")";
}

Bytes dataOf(std::uint32_t length, std::uint64_t pattern) {
  if (pattern == 0 || length > kMostData) return {};
  Bytes bytes(length, '\0');
  for (std::size_t i = 0; i < length; ++i) {
    bytes[i] = static_cast<char>(pattern * 37 + i * 7 + (i >> 8));
  }
  return bytes;
}

std::uint32_t checksum(const Bytes& bytes) {
  std::uint64_t first = 1;
  std::uint64_t second = 0;
  for (const char byte : bytes) {
    first = (first + static_cast<unsigned char>(byte)) % 65521;
    second = (second + first) % 65521;
  }
  return static_cast<std::uint32_t>(second * 65536 + first);
}

}  // namespace property
