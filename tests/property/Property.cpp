#include "property/Property.h"

#include <rapidcheck.h>

#include <iostream>
#include <sstream>

#include "property/BatchLibrary.h"
#include "property/Isolated.h"
#include "property/ReadingModel.h"
#include "property/WriterLibrary.h"
#include "property/WriterModel.h"

namespace property {
namespace {

Script smallestThatFails(const Script& script) {
  return smallest(script, [](const Script& tried) {
    const auto passes = [&tried] { return replay(tried).empty(); };
    return runInChild(passes, Output::Hidden) != Ending::Good;
  });
}

void shrinkAfterCrash(const std::string& text) {
  std::istringstream stream(text);
  const Script least = smallestThatFails(parseScript(stream, knownLanguages()));
  std::cerr << "The smallest script with which it fails:\n\n" << least << '\n';
  passesInChild([&least] { return replay(least).empty(); });
}

}  // namespace

bool passesInChild(const std::function<bool()>& work) {
  const Ending ending = runInChild(work);
  if (ending == Ending::Crashed) {
    std::cerr << "The process crashed in this script:\n\n" << notedScript() << '\n';
    WriterLibrary::removeLeftQueues();
  }
  return ending == Ending::Good;
}

bool holds(const std::string& claim, Script (*makeScript)(Dice& dice, int size)) {
  const Ending ending = runInChild([&] {
    return rc::check(claim, [makeScript] {
      const std::string differs = replay(*scripts(makeScript).as("script for --script"));
      if (!differs.empty()) RC_FAIL(differs);
    });
  });
  if (ending == Ending::Crashed) shrinkAfterCrash(notedScript());
  return ending == Ending::Good;
}

std::vector<const Language*> knownLanguages() { return {&writerLanguage(), &batchLanguage()}; }

std::string replay(const Script& script) {
  if (script.language == &batchLanguage()) {
    BatchLibrary library;
    ReadingModel model;
    return firstDifference(script, library, model);
  }
  WriterLibrary library;
  WriterModel model;
  return firstDifference(script, library, model);
}

}  // namespace property
