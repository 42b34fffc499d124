#ifndef TESTS_PROPERTY_DICE_H
#define TESTS_PROPERTY_DICE_H

#include <rapidcheck.h>

#include <cstdint>
#include <string>
#include <vector>

#include "property/Script.h"

namespace property {

/// Random choices, all from one seed.
class Dice {
 public:
  explicit Dice(const rc::Random& random) : random_(random) {}

  std::uint64_t any() { return random_.next(); }
  std::uint64_t below(std::uint64_t limit) { return any() % limit; }
  bool inPercent(unsigned percent) { return below(100) < percent; }
  std::uint64_t of(const std::vector<std::uint64_t>& values) {
    return values[below(values.size())];
  }

  /// One of the index's weights wins, in proportion.
  std::size_t weighted(const std::vector<unsigned>& weights);

  /// Any bytes, NUL and quotes among them, fewer than `limit`.
  std::string text(std::size_t limit);

 private:
  rc::Random random_;
};

/// Record lengths around every edge: none, the free room, the whole room, the limit of a record,
/// the end of 32 bits.
std::uint32_t edgyLength(Dice& dice, std::uint64_t room, std::uint64_t wholeRoom);

/// Sets the header of an operation: often as a producer would, sometimes to anything.
void rollHeader(Dice& dice, Operation& operation, std::uint32_t length);

/// A generator of scripts that shrink.
template <typename MakeScript>
rc::Gen<Script> scripts(MakeScript makeScript) {
  return [makeScript](const rc::Random& random, int size) {
    Dice dice(random);
    return rc::shrinkable::shrinkRecur(makeScript(dice, size), [](const Script& script) {
      return rc::seq::fromContainer(simplerScripts(script));
    });
  };
}

}  // namespace property

#endif
