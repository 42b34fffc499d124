#ifndef KORVEX_TOOL_COMMAND_LINE_H
#define KORVEX_TOOL_COMMAND_LINE_H

#include <iosfwd>

#include "Ending.h"
#include "Progress.h"
#include "StopSignal.h"

namespace korvex::tool {

/// The whole tool: finds the subcommand, checks its options and runs it. Wrong usage is reported on
/// `errors` and touches nothing. `progress` is what a subcommand may draw on.
Ending runTool(int argumentCount, const char* const* arguments, const StopSignal& stop,
               const Progress& progress, std::ostream& out, std::ostream& errors);

}  // namespace korvex::tool

#endif
