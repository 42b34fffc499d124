#ifndef KORVEX_TESTS_FAULTS_PATTERN_H
#define KORVEX_TESTS_FAULTS_PATTERN_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace korvex::test {

/// The bytes of one stream, known from its number and length alone. Both are its first 16 bytes, so
/// that whatever was stored can be told to be that stream, whole and equal, or not.
class Pattern {
 public:
  static constexpr std::size_t kHeadSize = 16;

  Pattern(std::uint64_t number, std::uint64_t size) : number_(number), size_(size) {}

  /// Reads the head of stored bytes.
  explicit Pattern(const unsigned char* head) {
    std::memcpy(&number_, head, sizeof number_);
    std::memcpy(&size_, head + sizeof number_, sizeof size_);
  }

  std::uint64_t number() const { return number_; }
  std::uint64_t size() const { return size_; }

  /// The bytes from `offset` on; both are multiples of 8.
  void fill(unsigned char* bytes, std::size_t count, std::uint64_t offset) const {
    for (std::size_t at = 0; at < count; at += sizeof(std::uint64_t)) {
      const std::uint64_t value = word((offset + at) / sizeof(std::uint64_t));
      std::memcpy(bytes + at, &value, sizeof value);
    }
  }

 private:
  std::uint64_t word(std::uint64_t index) const {
    if (index == 0) return number_;
    if (index == 1) return size_;
    std::uint64_t mixed = number_ * 0x9e3779b97f4a7c15U + index;
    mixed = (mixed ^ mixed >> 31) * 0xbf58476d1ce4e5b9U;
    return mixed ^ mixed >> 29;
  }

  std::uint64_t number_;
  std::uint64_t size_;
};

}  // namespace korvex::test

#endif
