#include "property/Property.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <random>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "property/BatchLibrary.h"
#include "property/BatchModel.h"
#include "property/WriterLibrary.h"
#include "property/WriterModel.h"

namespace korvex::test {
namespace {

// Sanitizers end a process with small numbers; these are ours.
constexpr int kGood = 50;
constexpr int kBad = 51;

/// What RC_PARAMS leaves open: cases for seconds in a development build, and a seed, so that a
/// second run meets the same scripts.
void completeParameters() {
  const char* const wished = std::getenv("RC_PARAMS");
  std::string parameters = wished == nullptr ? "" : wished;
  const auto add = [&parameters](const std::string& name, const std::string& value) {
    if (parameters.find(name) == std::string::npos) parameters += ' ' + name + '=' + value;
  };
  add("max_success", KORVEX_PROPERTY_CASES);
  add("seed", std::to_string(std::random_device{}()));
  ::setenv("RC_PARAMS", parameters.c_str(), 1);
}

}  // namespace

Ending runInChild(const std::function<bool()>& work) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child == 0) std::exit(work() ? kGood : kBad);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!WIFEXITED(status)) return Ending::Crashed;
  if (WEXITSTATUS(status) == kGood) return Ending::Good;
  return WEXITSTATUS(status) == kBad ? Ending::Bad : Ending::Crashed;
}

bool agree(const Script& script) {
  const Ending ending = runInChild([&script] {
    const std::string difference = replay(script);
    std::cerr << difference;
    return difference.empty();
  });
  if (ending == Ending::Crashed) WriterLibrary::removeLeftQueues();
  return ending == Ending::Good;
}

bool holds(const std::string& claim, MakeScript makeScript) {
  completeParameters();
  const Ending ending = runInChild([&] {
    return rc::check(claim, [makeScript] {
      const std::string difference = replay(*scripts(makeScript).as("script"));
      if (!difference.empty()) RC_FAIL(difference);
    });
  });
  if (ending != Ending::Crashed) return ending == Ending::Good;
  std::cerr << "The process crashed. The same scripts again, each in a process of its own:\n";
  rc::check(claim, [makeScript] { RC_ASSERT(agree(*scripts(makeScript).as("script"))); });
  return false;
}

std::vector<const Language*> knownLanguages() { return {&writerLanguage(), &batchLanguage()}; }

std::string replay(const Script& script) {
  if (script.language == &batchLanguage()) {
    BatchLibrary library;
    BatchModel model;
    return firstDifference(script, library, model);
  }
  WriterLibrary library;
  WriterModel model;
  return firstDifference(script, library, model);
}

}  // namespace korvex::test
