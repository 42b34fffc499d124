#ifndef TESTS_PROPERTY_PROPERTY_H
#define TESTS_PROPERTY_PROPERTY_H

#include <rapidcheck.h>

#include <string>

#include "property/Dice.h"
#include "property/World.h"

namespace property {

/// Runs random scripts against the library and its model. When they differ, prints the smallest
/// script found that still makes them differ, and returns false.
template <typename Library, typename TheModel, typename MakeScript>
bool holds(const std::string& claim, MakeScript makeScript) {
  return rc::check(claim, [makeScript] {
    const Script script = *scripts(makeScript).as("script for --script");
    Library library;
    TheModel model;
    const std::string differs = firstDifference(script, library, model);
    if (!differs.empty()) RC_FAIL(differs);
  });
}

/// Runs one script of any language; returns the first difference, empty when there is none.
std::string replay(const Script& script);

/// All the languages that replay() knows.
std::vector<const Language*> knownLanguages();

}  // namespace property

#endif
