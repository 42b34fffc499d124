#ifndef TESTS_PROPERTY_PROPERTY_H
#define TESTS_PROPERTY_PROPERTY_H

#include <functional>
#include <string>
#include <vector>

#include "property/RandomScripts.h"

namespace korvex::test {

/// Runs random scripts against the library and its model, all in one child process. When they
/// differ, or the process crashes, prints the smallest script found with which that still happens,
/// and returns false.
bool holds(const std::string& claim, MakeScript makeScript);

/// Runs one script of any language; returns the first difference, empty when there is none.
std::string replay(const Script& script);

/// Whether replay() finds no difference, seen in a child process; prints it. Removes what a crash
/// left in shared memory.
bool agree(const Script& script);

/// All the languages that replay() knows.
std::vector<const Language*> knownLanguages();

enum class Ending {
  Good,    ///< the work said true
  Bad,     ///< the work said false
  Crashed  ///< it did not come to say anything: a signal, or a sanitizer ended it
};

/// Crashes are findings like any other. Runs the work in a child process and waits for its end.
Ending runInChild(const std::function<bool()>& work);

}  // namespace korvex::test

#endif
