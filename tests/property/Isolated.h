#ifndef TESTS_PROPERTY_ISOLATED_H
#define TESTS_PROPERTY_ISOLATED_H

#include <functional>
#include <string>

#include "property/Script.h"

/// Crashes are findings like any other: they too must end in a small script. So the properties run
/// in a child process, which notes every script before it runs it, in memory shared with the
/// parent.
namespace property {

enum class Ending {
  Good,    ///< the work said true
  Bad,     ///< the work said false
  Crashed  ///< it did not come to say anything: a signal, or a sanitizer ended it
};

enum class Output { Shown, Hidden };

/// Runs the work in a child process and waits for its end.
Ending runInChild(const std::function<bool()>& work, Output output = Output::Shown);

/// Remembers the script that is about to be run, beyond the end of this process.
void noteScript(const Script& script);

/// The text of the script noted last, by this process or a child of it; empty when there is none.
std::string notedScript();

/// The smallest script found for which `fails` still holds.
Script smallest(Script script, const std::function<bool(const Script&)>& fails);

}  // namespace property

#endif
