#ifndef TESTS_INTEGRATION_TOOL_RUN_H
#define TESTS_INTEGRATION_TOOL_RUN_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/Process.h"

namespace korvex::test {

/// How a run of the command-line tool ended.
struct ToolRun {
  int code;
  std::string output;
  std::string errors;

  nlohmann::json json() const { return nlohmann::json::parse(output); }
};

/// Runs a program to its end.
inline ToolRun runProgram(const std::vector<std::string>& words) {
  Process process(words);
  const int code = process.wait().value_or(-1000);
  return {code, process.output(), process.errors()};
}

inline ToolRun runTool(std::vector<std::string> words) {
  words.insert(words.begin(), KORVEX_PROGRAM);
  return runProgram(words);
}

}  // namespace korvex::test

#endif
