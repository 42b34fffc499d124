#ifndef KORVEX_TOOL_SEND_H
#define KORVEX_TOOL_SEND_H

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "Ending.h"
#include "Progress.h"
#include "StopSignal.h"

namespace CLI {
class App;
}

namespace korvex::tool {

constexpr unsigned kLongestTimeout = 86400;  ///< of any kind, in seconds

/// What the command line of `korvex send` says.
struct SendOptions {
  std::string queue;
  std::string name;
  unsigned timeout = 60;  ///< seconds
  std::uint64_t segmentSize = 1 << 20;
  unsigned receiptTimeout = 60;  ///< seconds
  bool noReceipt = false;
  bool quiet = false;
  bool json = false;
  std::chrono::milliseconds keepAlive{10000};  ///< not on the command line
  std::vector<std::string> files;
  bool fromCommand = false;
  unsigned commandTimeout = 60;      ///< seconds
  std::vector<std::string> command;  ///< and its arguments
};

/// Declares the subcommand; `options` is filled when the command line is parsed.
CLI::App* declareSend(CLI::App& tool, SendOptions& options);

/// Streams the files and waits for the daemon's receipt. The result goes to `out` as JSON when
/// asked for, everything meant for people to `errors`.
Ending runSend(const SendOptions& options, const StopSignal& stop, Progress progress,
               std::ostream& out, std::ostream& errors);

}  // namespace korvex::tool

#endif
