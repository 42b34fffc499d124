#ifndef KORVEXD_OPTIONS_H
#define KORVEXD_OPTIONS_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "korvexd/QueuePair.h"

namespace korvexd {

// A pair that keeps both sides at work: a batch holds two of the largest ordinary records, and
// there are enough of them to bridge a pause of either side.
constexpr std::size_t kDefaultMessages = 8;
constexpr std::size_t kDefaultMessageSize = std::size_t{264} * 1024;
constexpr mode_t kDefaultMode = 0600;
constexpr std::chrono::seconds kDefaultEngineTimeout{3600};

/// What the daemon was asked to do; checked.
struct Options {
  std::vector<std::string> queues;  ///< without leading slash, no two that clash
  QueuePair::Existing existing = QueuePair::Existing::Refuse;
  mode_t mode = kDefaultMode;
  korvex::MessageQueue::Limits limits{kDefaultMessages, kDefaultMessageSize};
  std::optional<std::string> output;
  std::vector<std::string> engine;  ///< the words of its command; without it and an output folder
                                    ///< the data is discarded
  std::chrono::seconds engineTimeout = kDefaultEngineTimeout;
  std::optional<std::chrono::seconds> idleTimeout;
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
