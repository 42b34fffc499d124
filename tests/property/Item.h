#ifndef TESTS_PROPERTY_ITEM_H
#define TESTS_PROPERTY_ITEM_H

#include <cstdint>
#include <string>
#include <vector>

#include "property/Script.h"
#include "support/WireFormat.h"

namespace korvex::test {

/// A record as a caller hands it over: its header and its data, or the null pointer in place of
/// data.
struct Item {
  Header header;
  Bytes data;
  bool isNull = true;
};

/// The parameters of every verb that takes a record, before more of its own.
std::vector<Parameter> headerAnd(const std::vector<Parameter>& more);

/// The header that an operation describes.
Header headerOf(const Operation& operation);

/// The record that an operation with a `data` argument describes: 0 is a null pointer, anything
/// else a pattern of its own. Nothing is made of lengths above kMostData: no queue here holds so
/// much.
Item itemOf(const Operation& operation);
Bytes dataOf(std::uint32_t length, std::uint64_t pattern);
constexpr std::uint64_t kMostData = 1 << 20;

/// How both sides print a header.
std::string printed(const Header& header);

}  // namespace korvex::test

#endif
