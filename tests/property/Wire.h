#ifndef TESTS_PROPERTY_WIRE_H
#define TESTS_PROPERTY_WIRE_H

#include <cstdint>
#include <string>
#include <vector>

#include "property/World.h"

/// The formats once more, on their own: what the models expect must not come from the library.
namespace property {

constexpr std::uint32_t kSoundRecord = 2864434397;  // aa bb cc dd
constexpr std::uint32_t kSoundBatch = 4278251025;   // ff 00 ee 11

struct Record {
  std::uint32_t type = 0;
  std::uint32_t len = 0;
  std::uint64_t sequence = 0;
  std::uint64_t segmentCount = 0;
  std::uint32_t segmentEmpty = 1;
  std::uint32_t segState = 0;
  std::uint32_t algParam1 = 0;
  std::uint32_t algParam2 = 0;
  std::uint32_t algParam3 = 0;
  std::uint32_t magic = kSoundRecord;
};

/// The parameters of every verb that takes a header, and the header that an operation describes.
std::vector<Parameter> headerParameters();
Record recordOf(const Operation& operation);

Bytes big32(std::uint32_t value);
Bytes bytesOf(const Record& record);
Record recordFrom(const Bytes& bytes, std::size_t offset);
std::string printed(const Record& record);

/// The data that an operation's `data` argument stands for: 0 is a null pointer, anything else a
/// pattern of its own. Nothing is made of lengths above kMostData: no queue here holds so much.
constexpr std::uint64_t kMostData = 1 << 20;
Bytes dataOf(std::uint32_t length, std::uint64_t pattern);

std::uint32_t checksum(const Bytes& bytes);

}  // namespace property

#endif
