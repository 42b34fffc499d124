#ifndef TESTS_INTEGRATION_SUPPORT_BATCH_BYTES_H
#define TESTS_INTEGRATION_SUPPORT_BATCH_BYTES_H

#include <cstdint>
#include <string>
#include <vector>

namespace test_support {

using Bytes = std::vector<unsigned char>;

/// A batch put together byte by byte, without the library that is tested.
class BatchBytes {
 public:
  BatchBytes() {
    big32(0xff00ee11);
    big32(0);
  }

  /// Appends a record and counts it.
  BatchBytes& record(std::uint32_t type, std::uint64_t sequence, const std::string& data = "") {
    ++bytes_.at(7);
    big32(type);
    big32(static_cast<std::uint32_t>(data.size()));
    big64(sequence);
    big64(0);  // segmentCount
    big32(1);  // segmentEmpty
    for (int i = 0; i < 4; ++i) big32(0);
    big32(0xaabbccdd);
    bytes_.insert(bytes_.end(), data.begin(), data.end());
    return *this;
  }

  /// Overwrites 4 bytes.
  BatchBytes& set32(std::size_t offset, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
      bytes_.at(offset + static_cast<std::size_t>(i)) =
          static_cast<unsigned char>(value >> (24 - 8 * i));
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
  void big32(std::uint32_t value) {
    bytes_.resize(bytes_.size() + 4);
    set32(bytes_.size() - 4, value);
  }

  void big64(std::uint64_t value) {
    big32(static_cast<std::uint32_t>(value >> 32));
    big32(static_cast<std::uint32_t>(value));
  }

  Bytes bytes_;
};

}  // namespace test_support

#endif
