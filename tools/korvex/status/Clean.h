#ifndef KORVEX_TOOL_CLEAN_H
#define KORVEX_TOOL_CLEAN_H

#include <iosfwd>
#include <string>

#include "Ending.h"
#include "StopSignal.h"

namespace CLI {
class App;
}

namespace korvex::tool {

/// What the command line of `korvex clean` says.
struct CleanOptions {
  std::string queue;  ///< empty for all
  bool yes = false;
  bool json = false;
};

/// Declares the subcommand; `options` is filled when the command line is parsed.
CLI::App* declareClean(CLI::App& tool, CleanOptions& options);

/// Removes the pairs of queues that no living process serves, and what was left half made: shows
/// them on `out`, asks on a terminal, and removes what it may. Everything else is refused with the
/// reason.
Ending runClean(const CleanOptions& options, const StopSignal& stop, std::ostream& out,
                std::ostream& errors);

}  // namespace korvex::tool

#endif
