#ifndef TESTS_UNIT_BATCH_BUILDERS_H
#define TESTS_UNIT_BATCH_BUILDERS_H

#include <cstdint>
#include <string>

#include "korvex/ShmBatch.h"
#include "support/Bytes.h"

/// Short words for the batch tests.

inline korvex::qmx_shm_message_t headerOf(std::uint32_t type, std::uint32_t length) {
  korvex::qmx_shm_message_t header;
  header.type = type;
  header.len = length;
  return header;
}

/// A record of the given type with a text for data; the literal outlives the entry.
inline korvex::ShmBatch::Entry record(std::uint32_t type, const char* text) {
  const auto length = static_cast<std::uint32_t>(std::char_traits<char>::length(text));
  return {headerOf(type, length), reinterpret_cast<const unsigned char*>(text)};
}

/// A record that announces data but has none.
inline korvex::ShmBatch::Entry recordWithoutData(std::uint32_t length) {
  return {headerOf(1, length), nullptr};
}

inline std::string textOf(const korvex::ShmBatch::Entry& entry) {
  if (entry.data == nullptr) return "(null)";
  return std::string(reinterpret_cast<const char*>(entry.data), entry.header.len);
}

/// The bytes that a batch hands to the daemon.
inline std::string usedHexOf(const korvex::ShmBatch& batch) {
  return hexOf(batch.getRaw(), batch.getRawSize());
}

// The pieces of a batch of two records, written by hand.
const char* const kMetaDataOfTwo = "ff00ee11 00000002";
const char* const kSegmentHeader =  // type 1, 3 bytes of data
    "00000001 00000003 0000000000000000 0000000000000000 "
    "00000001 00000000 00000000 00000000 00000000 aabbccdd ";
const char* const kSegmentData = "616263";  // abc
const char* const kSegmentEndHeader =       // type 2, no data
    "00000002 00000000 0000000000000000 0000000000000000 "
    "00000001 00000000 00000000 00000000 00000000 aabbccdd ";

inline std::string twoRecordsHex() {
  return hex(std::string(kMetaDataOfTwo) + kSegmentHeader + kSegmentData + kSegmentEndHeader);
}

#endif
