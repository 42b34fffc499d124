#ifndef TESTS_PROPERTY_WORLD_H
#define TESTS_PROPERTY_WORLD_H

#include <cstdint>
#include <string>
#include <vector>

#include "property/Script.h"

namespace property {

using Bytes = std::string;

/// Everything that a caller could see of one operation: errors, results, and the state afterwards.
/// The library and the model must show the same.
struct Seen {
  std::string text;
  std::vector<Bytes> blocks;  ///< messages, buffers: what is too long to be read as text
};

/// Empty when both are the same, else where they differ.
std::string difference(const Seen& expected, const Seen& found);

std::string textOfError(std::uint32_t status, const std::string& message,
                        const std::string& location);

/// Something that scripts can be run against: the library itself, or the model of it.
class World {
 public:
  virtual ~World() = default;
  virtual Seen perform(const Operation& operation) = 0;
};

/// The model also knows what must not be done, because the caller's promises would be broken.
class Model : public World {
 public:
  virtual bool permits(const Operation&) const { return true; }
};

/// Runs the script against both and returns the first difference with the line at fault; empty when
/// there is none.
std::string firstDifference(const Script& script, World& library, Model& model);

}  // namespace property

#endif
