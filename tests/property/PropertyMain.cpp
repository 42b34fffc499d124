// Runs the property tests, or replays scripts: korvex_property_tests --script FILE...

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include "property/Property.h"

namespace {

// Seconds in a development build; RC_PARAMS overrides it.
constexpr char kUsualCases[] = "max_success=" KORVEX_PROPERTY_CASES;

/// Whether the library does what the model does.
bool agree(const char* path, const property::Script& script) {
  const std::string differs = property::replay(script);
  std::cout << path << ": " << (differs.empty() ? "no difference\n" : differs) << std::flush;
  return differs.empty();
}

/// 0 when they agree, 1 when they do not or when the process crashed, 2 when the file is no script.
int replayFile(const char* path) {
  std::ifstream file(path);
  if (!file) {
    std::cerr << path << ": cannot be read\n";
    return 2;
  }
  try {
    const property::Script script = property::parseScript(file, property::knownLanguages());
    return property::passesInChild([&] { return agree(path, script); }) ? 0 : 1;
  } catch (const std::invalid_argument& error) {
    std::cerr << path << ": " << error.what() << '\n';
    return 2;
  }
}

int replayFiles(int count, char** paths) {
  int worst = 0;
  for (int i = 0; i < count; ++i) worst = std::max(worst, replayFile(paths[i]));
  return worst;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 && std::string(argv[1]) == "--script") return replayFiles(argc - 2, argv + 2);
  const char* const wished = std::getenv("RC_PARAMS");
  const std::string parameters = wished == nullptr ? "" : wished;
  if (parameters.find("max_success") == std::string::npos) {
    ::setenv("RC_PARAMS", (parameters + ' ' + kUsualCases).c_str(), 1);
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
