#ifndef KORVEX_TOOL_STATUS_H
#define KORVEX_TOOL_STATUS_H

#include <iosfwd>
#include <string>
#include <vector>

#include "Ending.h"
#include "StopSignal.h"

namespace CLI {
class App;
}

namespace korvex::tool {

/// What the command line of `korvex status` says.
struct StatusOptions {
  std::string queue;               ///< empty for all
  std::vector<std::string> stats;  ///< files; if empty, those that the serving daemons are using
  bool json = false;
  bool watch = false;
};

/// Declares the subcommand; `options` is filled when the command line is parsed.
CLI::App* declareStatus(CLI::App& tool, StatusOptions& options);

/// Prints what is in shared memory to `out`, once, or every second until a signal comes. Anything
/// requested but missing is reported on `errors`.
Ending runStatus(const StatusOptions& options, const StopSignal& stop, std::ostream& out,
                 std::ostream& errors);

}  // namespace korvex::tool

#endif
