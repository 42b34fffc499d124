#include "property/World.h"

#include <algorithm>
#include <sstream>

#include "property/Isolated.h"

namespace property {
namespace {

std::string hexAround(const Bytes& bytes, std::size_t offset) {
  constexpr std::size_t kShown = 16;
  std::ostringstream stream;
  stream << std::hex;
  for (std::size_t i = offset; i < std::min(bytes.size(), offset + kShown); ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    stream << (byte >> 4) << (byte & 15) << ' ';
  }
  return stream.str();
}

std::string blockDifference(const Bytes& expected, const Bytes& found) {
  const auto places = std::mismatch(expected.begin(), expected.end(), found.begin(), found.end());
  const auto offset = static_cast<std::size_t>(places.first - expected.begin());
  const std::string from = " bytes, from " + std::to_string(offset) + ": ";
  return "  expected " + std::to_string(expected.size()) + from + hexAround(expected, offset) +
         "\n  found    " + std::to_string(found.size()) + from + hexAround(found, offset) + '\n';
}

}  // namespace

std::string textOfError(std::uint32_t status, const std::string& message,
                        const std::string& location) {
  return "error " + std::to_string(status) + " '" + message + "' at '" + location + "'";
}

std::string difference(const Seen& expected, const Seen& found) {
  if (expected.text != found.text) {
    return "  expected " + expected.text + "\n  found    " + found.text + '\n';
  }
  if (expected.blocks.size() != found.blocks.size()) {
    return "  expected " + std::to_string(expected.blocks.size()) + " blocks\n  found    " +
           std::to_string(found.blocks.size()) + " blocks\n";
  }
  for (std::size_t i = 0; i < expected.blocks.size(); ++i) {
    if (expected.blocks[i] != found.blocks[i]) {
      return "  block " + std::to_string(i) + '\n' +
             blockDifference(expected.blocks[i], found.blocks[i]);
    }
  }
  return "";
}

std::string firstDifference(const Script& script, World& library, Model& model) {
  noteScript(script);
  for (std::size_t i = 0; i < script.operations.size(); ++i) {
    const Operation& operation = script.operations[i];
    if (!model.permits(operation)) continue;
    const Seen expected = model.perform(operation);
    const std::string differs = difference(expected, library.perform(operation));
    if (differs.empty()) continue;
    std::ostringstream stream;
    stream << "operation " << std::to_string(i + 1) << ": " << operation << '\n' << differs;
    return stream.str();
  }
  return "";
}

}  // namespace property
