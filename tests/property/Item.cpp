#include "property/Item.h"

namespace korvex::test {

std::vector<Parameter> headerAnd(const std::vector<Parameter>& more) {
  std::vector<Parameter> parameters = {
      {"type", 0},  {"len", 0}, {"sequence", 0}, {"count", 0}, {"empty", 1},
      {"state", 0}, {"p1", 0},  {"p2", 0},       {"p3", 0},    {"magic", kHeaderMagic}};
  parameters.insert(parameters.end(), more.begin(), more.end());
  return parameters;
}

Header headerOf(const Operation& operation) {
  return {operation.low("type"), operation.low("len"),   operation["sequence"],
          operation["count"],    operation.low("empty"), operation.low("state"),
          operation.low("p1"),   operation.low("p2"),    operation.low("p3"),
          operation.low("magic")};
}

Item itemOf(const Operation& operation) {
  const Header header = headerOf(operation);
  return {header, dataOf(header.len, operation["data"]), operation["data"] == 0};
}

Bytes dataOf(std::uint32_t length, std::uint64_t pattern) {
  if (pattern == 0 || length > kMostData) return {};
  Bytes bytes(length);
  for (std::size_t i = 0; i < length; ++i) {
    bytes[i] = static_cast<unsigned char>(pattern * 37 + i * 7 + (i >> 8));
  }
  return bytes;
}

std::string printed(const Header& header) {
  std::string text = "(" + std::to_string(header.sequence);
  for (const std::uint64_t value :
       {std::uint64_t{header.type}, std::uint64_t{header.len}, std::uint64_t{header.segState},
        header.segmentCount, std::uint64_t{header.segmentEmpty}, std::uint64_t{header.algParam1},
        std::uint64_t{header.algParam2}, std::uint64_t{header.algParam3},
        std::uint64_t{header.magic}}) {
    text += "," + std::to_string(value);
  }
  return text + ")";
}

}  // namespace korvex::test
