#ifndef KORVEXD_OPTIONS_H
#define KORVEXD_OPTIONS_H

#include <iosfwd>
#include <optional>

#include "korvexd/config/Configuration.h"

namespace korvexd {

/// What a command line asks for; all its values are valid.
struct Options {
  enum class Task { Serve, CheckConfig, PrintConfig };

  Task task = Task::Serve;
  CommandLine commandLine;
};

/// Options, or the code to exit with.
struct ParsedOptions {
  std::optional<Options> options;
  int exitCode;
};

/// Reads a command line. Help and version go to `out`, what is wrong with it to `err`.
ParsedOptions parseOptions(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace korvexd

#endif
