#ifndef TESTS_SUPPORT_WIRE_FORMAT_H
#define TESTS_SUPPORT_WIRE_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/Bytes.h"

/// Batches and replies, written and read from the format alone: what a test expects must not come
/// from the code under test.
namespace korvex::test {

// The types of records.
constexpr std::uint32_t kOpen = 0;
constexpr std::uint32_t kData = 1;
constexpr std::uint32_t kSegmentEnd = 2;
constexpr std::uint32_t kClose = 3;
constexpr std::uint32_t kStop = 4;

constexpr std::uint32_t kBatchMagic = 0xff00ee11;
constexpr std::uint32_t kHeaderMagic = 0xaabbccdd;
constexpr std::size_t kMetaDataSize = 8;
constexpr std::size_t kHeaderSize = 48;
constexpr std::size_t kReplyTextSize = 128;
constexpr std::size_t kReplySize = sizeof(std::uint32_t) + kReplyTextSize;

/// A record's header; by default an open record's.
struct Header {
  std::uint32_t type = kOpen;
  std::uint32_t len = 0;
  std::uint64_t sequence = 0;
  std::uint64_t segmentCount = 0;
  std::uint32_t segmentEmpty = 1;
  std::uint32_t segState = 0;
  std::uint32_t algParam1 = 0;
  std::uint32_t algParam2 = 0;
  std::uint32_t algParam3 = 0;
  std::uint32_t magic = kHeaderMagic;
};

/// Calls `action` for each field, in wire order. The library's header has the same fields.
template <typename AnyHeader, typename Action>
void forEachField(AnyHeader& header, Action action) {
  action(header.type);
  action(header.len);
  action(header.sequence);
  action(header.segmentCount);
  action(header.segmentEmpty);
  action(header.segState);
  action(header.algParam1);
  action(header.algParam2);
  action(header.algParam3);
  action(header.magic);
}

/// The big-endian number at the start of the bytes.
template <typename Integer>
Integer bigEndianAt(const unsigned char* bytes) {
  Integer value = 0;
  for (std::size_t i = 0; i < sizeof value; ++i)
    value = static_cast<Integer>(value << 8 | bytes[i]);
  return value;
}

template <typename Integer>
void appendBigEndian(Bytes& bytes, Integer value) {
  for (std::size_t i = sizeof value; i > 0; --i) {
    bytes.push_back(static_cast<unsigned char>(value >> 8 * (i - 1)));
  }
}

template <typename AnyHeader>
Bytes headerBytes(const AnyHeader& header) {
  Bytes bytes;
  forEachField(header, [&bytes](auto value) { appendBigEndian(bytes, value); });
  return bytes;
}

template <typename AnyHeader = Header>
AnyHeader headerAt(const unsigned char* bytes) {
  AnyHeader header;
  forEachField(header, [&bytes](auto& field) {
    field = bigEndianAt<std::decay_t<decltype(field)>>(bytes);
    bytes += sizeof field;
  });
  return header;
}

inline Bytes metaDataBytes(std::uint32_t magic, std::uint32_t count) {
  Bytes bytes;
  appendBigEndian(bytes, magic);
  appendBigEndian(bytes, count);
  return bytes;
}

/// Whether a message is a batch, checked by a reader that trusts nothing; and where its records
/// start.
inline bool decodeBatch(const unsigned char* message, std::size_t size,
                        std::vector<std::size_t>& starts) {
  starts.clear();
  if (size < kMetaDataSize || bigEndianAt<std::uint32_t>(message) != kBatchMagic) return false;
  std::size_t at = kMetaDataSize;
  for (auto more = bigEndianAt<std::uint32_t>(message + 4); more != 0; --more) {
    if (size - at < kHeaderSize) return false;
    const Header header = headerAt(message + at);
    if (header.magic != kHeaderMagic || header.len > size - at - kHeaderSize) return false;
    starts.push_back(at);
    at += kHeaderSize + header.len;
  }
  return at == size;
}

/// A batch put together byte by byte.
class BatchBytes {
 public:
  /// Appends a record and counts it.
  BatchBytes& record(std::uint32_t type, std::uint64_t sequence, const std::string& data = "") {
    ++bytes_.at(7);
    Header header;
    header.type = type;
    header.len = static_cast<std::uint32_t>(data.size());
    header.sequence = sequence;
    forEachField(header, [this](auto value) { appendBigEndian(bytes_, value); });
    bytes_.insert(bytes_.end(), data.begin(), data.end());
    return *this;
  }

  /// Overwrites 4 bytes.
  BatchBytes& set32(std::size_t offset, std::uint32_t value) {
    for (std::size_t i = 0; i < sizeof value; ++i) {
      bytes_.at(offset + i) = static_cast<unsigned char>(value >> (24 - 8 * i));
    }
    return *this;
  }

  /// Appends bytes that no record announces.
  BatchBytes& trailing(std::size_t count) {
    bytes_.resize(bytes_.size() + count);
    return *this;
  }

  const Bytes& bytes() const { return bytes_; }

 private:
  Bytes bytes_ = metaDataBytes(kBatchMagic, 0);
};

/// A reply, its status in host order and its text truncated to its field.
inline Bytes replyBytes(std::uint32_t status, const std::string& text) {
  Bytes bytes(kReplySize, 0);
  std::memcpy(bytes.data(), &status, sizeof status);
  text.copy(reinterpret_cast<char*>(bytes.data()) + sizeof status, kReplyTextSize);
  return bytes;
}

inline std::uint32_t replyStatus(const Bytes& reply) {
  std::uint32_t status = 0;
  std::memcpy(&status, reply.data(), sizeof status);
  return status;
}

/// The text of a whole reply; it may fill its field without a NUL.
inline std::string replyText(const Bytes& reply) {
  const std::string field(reply.begin() + sizeof(std::uint32_t), reply.end());
  return field.substr(0, field.find('\0'));
}

}  // namespace korvex::test

#endif
