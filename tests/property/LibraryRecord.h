#ifndef TESTS_PROPERTY_LIBRARY_RECORD_H
#define TESTS_PROPERTY_LIBRARY_RECORD_H

#include "korvex/ShmCommon.h"
#include "property/Wire.h"

namespace property {

/// The library's header with the fields of the model's.
inline korvex::qmx_shm_message_t libraryRecord(const Record& record) {
  korvex::qmx_shm_message_t header;
  header.type = record.type;
  header.len = record.len;
  header.sequence = record.sequence;
  header.segmentCount = record.segmentCount;
  header.segmentEmpty = record.segmentEmpty;
  header.segState = record.segState;
  header.algParam1 = record.algParam1;
  header.algParam2 = record.algParam2;
  header.algParam3 = record.algParam3;
  header.magic = record.magic;
  return header;
}

/// Data as a caller hands it over. Where the library must not read, there is nothing to be read.
class LibraryData {
 public:
  LibraryData(std::uint32_t length, std::uint64_t pattern)
      : bytes_(dataOf(length, pattern)), isNull_(pattern == 0) {}

  const unsigned char* pointer() const {
    if (isNull_) return nullptr;
    if (bytes_.empty()) return reinterpret_cast<const unsigned char*>(kUnreadable);
    return reinterpret_cast<const unsigned char*>(bytes_.data());
  }

 private:
  static constexpr std::uintptr_t kUnreadable = 1;

  Bytes bytes_;
  bool isNull_;
};

}  // namespace property

#endif
