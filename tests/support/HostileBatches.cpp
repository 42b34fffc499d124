#include "support/HostileBatches.h"

#include <algorithm>

#include "support/WireFormat.h"

namespace korvex::test::hostile {
namespace {

constexpr std::size_t kMetaData = 8;
constexpr std::size_t kHeader = 48;

std::uint64_t bigEndian(const unsigned char* bytes, int size) {
  std::uint64_t value = 0;
  for (int i = 0; i < size; ++i) value = value << 8 | bytes[i];
  return value;
}

}  // namespace

BatchBytes Batches::wholeStream(const std::string& data) {
  return BatchBytes()
      .record(kOpen, 0)
      .record(kData, 2, data)
      .record(kSegmentEnd, 3)
      .record(kClose, 4);
}

std::string Batches::someText() {
  std::string text(1 + below(100), '\0');
  for (char& character : text) character = static_cast<char>('a' + below(26));
  return text;
}

/// Where lengths, counts and types are compared, added or multiplied.
std::uint32_t Batches::strangeNumber() {
  static constexpr std::uint32_t kEdges[] = {0,          1,          2,          5,
                                             47,         48,         49,         255,
                                             0x7fffffff, 0x80000000, 0xffffff00, 0xffffffcf,
                                             0xffffffd0, 0xffffffff, 0x11ee00ff, 0xddccbbaa};
  const std::uint32_t which = below(24);
  return which < 16 ? kEdges[which] : static_cast<std::uint32_t>(random_());
}

Bytes Batches::noise() {
  Bytes bytes(below(kLargest + 1));
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random_());
  return bytes;
}

/// Right as a batch, and now and then as a part of a stream.
Bytes Batches::someBatch() {
  BatchBytes batch;
  std::uint64_t sequence = 2 + below(3);
  for (std::uint32_t left = below(4); left > 0; --left) {
    const std::uint32_t type = 1 + below(5);
    batch.record(type, sequence, type == kData ? someText() : "");
    sequence += below(8) == 0 ? below(3) : 1;
  }
  return batch.bytes();
}

/// All records of a stream, in any order.
Bytes Batches::disorder() {
  std::vector<std::uint32_t> types = {kOpen, kData, kSegmentEnd, kClose};
  std::vector<std::uint64_t> sequences = {0, 2, 3, 4};
  for (std::uint32_t i = 3; i > 0; --i) {
    std::swap(types[i], types[below(i + 1)]);
    if (below(2) == 0) std::swap(sequences[i], sequences[below(i + 1)]);
  }
  BatchBytes batch;
  for (std::size_t i = 0; i < types.size(); ++i)
    batch.record(types[i], sequences[i], types[i] == kData ? someText() : "");
  return batch.bytes();
}

Bytes Batches::cut() {
  Bytes bytes = wholeStream(someText()).bytes();
  bytes.resize(below(static_cast<std::uint32_t>(bytes.size())));
  return bytes;
}

Bytes Batches::flipped() {
  Bytes bytes = wholeStream(someText()).bytes();
  for (std::uint32_t flips = 1 + below(3); flips > 0; --flips) {
    const std::uint32_t bit = below(static_cast<std::uint32_t>(8 * bytes.size()));
    bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] ^ (1U << bit % 8));
  }
  return bytes;
}

/// One of the fields of a right stream says something else: the count, a magic, a length, a type, a
/// half of a sequence, or what nobody looks at.
Bytes Batches::withStrangeField() {
  const std::string text = someText();
  BatchBytes batch = wholeStream(text);
  const std::size_t records[] = {kMetaData, kMetaData + kHeader,
                                 kMetaData + 2 * kHeader + text.size(),
                                 kMetaData + 3 * kHeader + text.size()};
  const std::uint32_t field = below(14);
  const std::size_t offset = field < 2 ? 4 * field : records[below(4)] + 4 * (field - 2);
  return batch.set32(offset, strangeNumber()).bytes();
}

Bytes Batches::withTrailingBytes() {
  return wholeStream(someText()).trailing(1 + below(100)).bytes();
}

/// The first piece at once; others may come before the next.
Bytes Batches::inPieces() {
  pieces_.clear();
  pieces_.push_back(BatchBytes().record(kData, 2, someText()).bytes());
  pieces_.push_back(BatchBytes().record(kData, 3, someText()).record(kSegmentEnd, 4).bytes());
  pieces_.push_back(BatchBytes().record(kClose, 5).bytes());
  return BatchBytes().record(kOpen, 0).bytes();
}

Bytes Batches::next() {
  if (!pieces_.empty() && below(20) != 0) {
    const Bytes piece = pieces_.front();
    pieces_.pop_front();
    return piece;
  }
  switch (below(200)) {
    case 0:
      return wholeStream(someText()).bytes();
    case 1:
      return inPieces();
    case 2:
      return disorder();
    case 3:
    case 4:
      return flipped();
    case 5:
    case 6:
      return withStrangeField();
    default:
      break;
  }
  switch (below(4)) {
    case 0:
      return noise();
    case 1:
      return cut();
    case 2:
      return withTrailingBytes();
    default:
      return someBatch();
  }
}

bool Model::decode(const Bytes& message, std::vector<Record>& records) {
  const unsigned char* const bytes = message.data();
  if (message.size() < kMetaData || bigEndian(bytes, 4) != 0xff00ee11) return false;
  std::size_t at = kMetaData;
  for (std::uint64_t left = bigEndian(bytes + 4, 4); left != 0; --left) {
    if (message.size() - at < kHeader || bigEndian(bytes + at + 44, 4) != 0xaabbccdd) return false;
    const std::uint64_t length = bigEndian(bytes + at + 4, 4);
    if (length > message.size() - at - kHeader) return false;
    const unsigned char* const data = bytes + at + kHeader;
    records.push_back({static_cast<std::uint32_t>(bigEndian(bytes + at, 4)),
                       bigEndian(bytes + at + 8, 8), std::string(data, data + length)});
    at += kHeader + length;
  }
  return at == message.size();
}

void Model::take(const Bytes& message) {
  std::vector<Record> records;
  if (decode(message, records)) {
    for (const Record& record : records) take(record);
    return;
  }
  ++badBatches_;
  isOpen_ = false;
}

void Model::take(const Record& record) {
  if (record.type == kOpen) {
    cutOffAnother_ = isOpen_;
    isOpen_ = record.data.empty();
    isFirst_ = true;
    sequence_ = record.sequence;
    data_.clear();
    return;
  }
  isOpen_ = isOpen_ && isInPlace(record);
  if (!isOpen_) return;
  isFirst_ = false;
  sequence_ = record.sequence;
  data_ += record.data;
  if (record.type == kClose) complete_.push_back(data_);
  if (record.type == kClose || record.type == kStop) isOpen_ = false;
}

/// The number behind the open record's is never used. Gaps are fine, but for those that could hide
/// a record that is missing or another producer's.
bool Model::isInPlace(const Record& record) const {
  if (record.type > kStop || (record.type != kData && !record.data.empty())) return false;
  const std::uint64_t next = sequence_ + (isFirst_ ? 2 : 1);
  const bool mayLeaveGap = record.type != kClose && !cutOffAnother_;
  return record.sequence > sequence_ && (record.sequence == next || mayLeaveGap);
}

}  // namespace korvex::test::hostile
