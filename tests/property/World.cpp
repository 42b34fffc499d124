#include "property/World.h"

#include <algorithm>
#include <boost/interprocess/exceptions.hpp>
#include <qmx/error.h>
#include <sstream>

namespace korvex::test {
namespace {

std::string errorText(std::uint32_t status, const std::string& message,
                      const std::string& location) {
  return "error " + std::to_string(status) + " '" + message + "' at '" + location + "'";
}

std::string hexAround(const Bytes& bytes, std::size_t offset) {
  constexpr std::size_t kShown = 16;
  return hexOf(bytes.data() + offset, std::min(bytes.size() - offset, kShown));
}

std::string blockDifference(const Bytes& expected, const Bytes& found) {
  const auto places = std::mismatch(expected.begin(), expected.end(), found.begin(), found.end());
  const auto offset = static_cast<std::size_t>(places.first - expected.begin());
  const std::string from = " bytes, from " + std::to_string(offset) + ": ";
  return "  expected " + std::to_string(expected.size()) + from + hexAround(expected, offset) +
         "\n  found    " + std::to_string(found.size()) + from + hexAround(found, offset) + '\n';
}

/// Empty when both are the same, else where they differ.
std::string difference(const Seen& expected, const Seen& found) {
  if (expected.text != found.text) {
    return "  expected " + expected.text + "\n  found    " + found.text + '\n';
  }
  if (expected.blocks.size() != found.blocks.size()) {
    return "  expected " + std::to_string(expected.blocks.size()) + " blocks\n  found    " +
           std::to_string(found.blocks.size()) + " blocks\n";
  }
  for (std::size_t i = 0; i < expected.blocks.size(); ++i) {
    if (expected.blocks[i] == found.blocks[i]) continue;
    return "  block " + std::to_string(i) + '\n' +
           blockDifference(expected.blocks[i], found.blocks[i]);
  }
  return "";
}

}  // namespace

void fail(std::uint32_t status, const std::string& message) {
  throw Failure{errorText(status, message, "")};
}

Seen World::perform(const Operation& operation) {
  seen_ = {};
  try {
    act(operation);
  } catch (const Failure& failure) {
    say(failure.text);
  } catch (const Ov_ErrnoException& error) {
    say(errorText(error.getStatus(), error.getMessage(), error.getLocation()));
  } catch (const boost::interprocess::interprocess_exception& error) {
    say("queue error " + std::to_string(error.get_error_code()));
  } catch (const std::exception& error) {
    say(std::string("unexpected exception: ") + error.what());
  }
  showState();
  return seen_;
}

std::string firstDifference(const Script& script, World& library, World& model) {
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

}  // namespace korvex::test
