#ifndef TESTS_PROPERTY_PROPERTY_H
#define TESTS_PROPERTY_PROPERTY_H

#include <functional>
#include <string>
#include <vector>

#include "property/Dice.h"

namespace property {

/// Runs random scripts against the library and its model. When they differ, or the process crashes,
/// prints the smallest script found with which that still happens, and returns false.
bool holds(const std::string& claim, Script (*makeScript)(Dice& dice, int size));

/// Runs one script of any language; returns the first difference, empty when there is none.
std::string replay(const Script& script);

/// Runs the work in a child process. False when it says so, and when the process crashes; that is
/// told, and what the crash left in shared memory is removed.
bool passesInChild(const std::function<bool()>& work);

/// All the languages that replay() knows.
std::vector<const Language*> knownLanguages();

}  // namespace property

#endif
