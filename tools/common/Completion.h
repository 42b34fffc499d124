#ifndef KORVEX_COMMON_COMPLETION_H
#define KORVEX_COMMON_COMPLETION_H

#include <string>

namespace CLI {
class App;
}

namespace korvex::common {

/// The names of the shells that completionFor() knows, as an option's type shows them.
constexpr const char* kShells = "bash|zsh|fish";

/// For a command line: what is wrong with the word as a shell's name; empty when nothing is.
std::string checkShell(const std::string& word);

/// The script that completes the program's words in a shell, made of the options it declares, so
/// that it knows neither more nor less than --help. The shell is one of kShells.
///
/// The first word of an option's type says what its value is: DIR and FILE are completed as such,
/// words between bars are a choice, and anything else is not completed.
std::string completionFor(const CLI::App& program, const std::string& shell);

/// Declares --completion SHELL for a program without subcommands. It ends parsing just as --version
/// does.
void declareCompletion(CLI::App& program);

}  // namespace korvex::common

#endif
