#ifndef TESTS_PROPERTY_WORLD_H
#define TESTS_PROPERTY_WORLD_H

#include <cstdint>
#include <string>
#include <vector>

#include "property/Script.h"
#include "support/Bytes.h"

namespace korvex::test {

/// What a model throws where the library throws.
struct Failure {
  std::string text;
};

[[noreturn]] void fail(std::uint32_t status, const std::string& message);

/// Everything that a caller could see of one operation: errors, results, and the state afterwards.
/// The library and the model must show the same.
struct Seen {
  std::string text;
  std::vector<Bytes> blocks;  ///< messages, buffers: what is too long to be read as text
};

/// Something that scripts can be run against: the library itself, or the model of it.
class World {
 public:
  virtual ~World() = default;

  Seen perform(const Operation& operation);

  /// A model knows what must not be done, because the caller's promises would be broken.
  virtual bool permits(const Operation&) const { return true; }

 protected:
  void say(const std::string& text) { seen_.text += text; }
  void show(const Bytes& block) { seen_.blocks.push_back(block); }

 private:
  virtual void act(const Operation& operation) = 0;
  virtual void showState() = 0;

  Seen seen_;
};

/// Runs the script against both and returns the first difference with the line at fault; empty when
/// there is none.
std::string firstDifference(const Script& script, World& library, World& model);

}  // namespace korvex::test

#endif
