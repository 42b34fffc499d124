#ifndef KORVEX_TOOL_FROM_COMMAND_H
#define KORVEX_TOOL_FROM_COMMAND_H

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace korvex::tool {

struct SendOptions;

/// Declares the options of `korvex send` for a command in place of files.
void declareFromCommand(CLI::App& send, SendOptions& options);

/// Cuts the command off the end of the tool's words and returns it. Its words may be anything, so
/// the parser must not see them.
///
/// After --from-command, the command begins with the first word that is neither an option of
/// `send` nor an option's value, or after "--". Without --from-command, nothing is cut.
std::vector<std::string> cutCommand(const CLI::App& send, std::vector<std::string>& words);

}  // namespace korvex::tool

#endif
