#ifndef KORVEXD_COMMAND_WORDS_H
#define KORVEXD_COMMAND_WORDS_H

#include <string>
#include <vector>

namespace korvexd {

/// The words of a command, split as a shell would: whitespace separates them, quotes and
/// backslashes quote. Nothing else is special: no variables, no patterns, no pipes.
///
/// Throws std::invalid_argument, whose text says what is wrong, when there is no word or a quote is
/// left open.
std::vector<std::string> splitCommand(const std::string& command);

/// The file that runs under this name: the name itself if it holds a slash, else the first
/// executable file in the folders of PATH. Throws SystemError, whose text names the program.
std::string findProgram(const std::string& name);

}  // namespace korvexd

#endif
