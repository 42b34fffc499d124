#ifndef KORVEXD_OPTIONS_H
#define KORVEXD_OPTIONS_H

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include <korvex/receiver/Receiver.h>

namespace korvexd {

/// What the daemon was asked to do; checked.
struct Options {
  std::vector<std::string> queues;  ///< without leading slash, no two that clash
  korvex::receiver::Receiver::Settings queue;  ///< of each queue; its name is left empty
  std::optional<std::string> output;  ///< the data is discarded without one
  std::optional<std::string> capture;
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
