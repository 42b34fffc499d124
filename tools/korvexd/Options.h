#ifndef KORVEXD_OPTIONS_H
#define KORVEXD_OPTIONS_H

#include <chrono>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include <korvex/receiver/Receiver.h>
#include "korvexd/log/LogFormat.h"

namespace korvexd {

constexpr std::chrono::seconds kDefaultEngineTimeout{3600};

/// What the daemon was asked to do; checked.
struct Options {
  std::vector<std::string> queues;             ///< without leading slash, no two that clash
  korvex::receiver::Receiver::Settings queue;  ///< of each queue; its name is left empty
  std::optional<std::string> output;
  std::vector<std::string> engine;  ///< the words of its command; without it and an output folder
                                    ///< the data is discarded
  std::chrono::seconds engineTimeout = kDefaultEngineTimeout;
  std::optional<std::string> capture;
  std::optional<std::string> statsFile;
  std::optional<std::string> metricsFile;
  LogStyle logStyle = LogStyle::Text;
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
