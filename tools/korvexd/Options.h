#ifndef KORVEXD_OPTIONS_H
#define KORVEXD_OPTIONS_H

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "korvexd/config/Settings.h"

namespace korvexd {

/// What the daemon was asked to do; checked.
struct Options {
  std::vector<QueueSettings> queues;  ///< no two that clash
  std::optional<std::string> statsFile;
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
