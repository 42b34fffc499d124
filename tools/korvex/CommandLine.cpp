#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include "Failure.h"

namespace korvex::tool {

Ending runTool(int argumentCount, const char* const* arguments, const StopSignal& stop,
               const Progress& progress, std::ostream& out, std::ostream& errors) {
  CLI::App tool("Sends data through korvex's queues in shared memory.", "korvex");
  tool.set_version_flag("--version", KORVEX_VERSION);
  tool.require_subcommand(0, 1);  // so that an unknown word is named, not called missing
  SendOptions sendOptions;
  declareSend(tool, sendOptions);
  try {
    tool.parse(argumentCount, arguments);
    if (tool.get_subcommands().empty()) throw CLI::RequiredError::Subcommand(1);
  } catch (const CLI::ParseError& error) {
    // Help and version leave by the same way; only they end well.
    const bool isWrong = tool.exit(error, out, errors) != 0;
    return {static_cast<int>(isWrong ? ExitCode::WrongUsage : ExitCode::Success), 0};
  }
  return runSend(sendOptions, stop, sendOptions.quiet ? Progress() : progress, out, errors);
}

}  // namespace korvex::tool
