#ifndef KORVEX_TOOL_INSPECT_H
#define KORVEX_TOOL_INSPECT_H

#include <iosfwd>
#include <string>
#include <vector>

#include "Ending.h"
#include "StopSignal.h"

namespace CLI {
class App;
}

namespace korvex::tool {

/// What the command line of `korvex inspect` says.
struct InspectOptions {
  bool json = false;
  bool data = false;
  std::vector<std::string> files;
};

/// Declares the subcommand; `options` is filled when the command line is parsed.
CLI::App* declareInspect(CLI::App& tool, InspectOptions& options);

/// Prints the records of captured batches to `out`, with one file in memory at a time; of a damaged
/// batch, the records before the damage. A file that cannot be read is reported on `errors`, and
/// the others follow.
Ending runInspect(const InspectOptions& options, const StopSignal& stop, std::ostream& out,
                  std::ostream& errors);

}  // namespace korvex::tool

#endif
