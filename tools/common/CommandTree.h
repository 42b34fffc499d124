#ifndef KORVEX_COMMON_COMMAND_TREE_H
#define KORVEX_COMMON_COMMAND_TREE_H

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace korvex::common {

/// What a word on a command line may be.
struct ValueKind {
  enum class Source { None, Anything, Files, Folders, Choice };

  Source source = Source::None;
  std::string title;                 ///< for people
  std::vector<std::string> choices;  ///< of a choice
};

/// One option as --help shows it.
struct OptionWords {
  std::vector<std::string> words;  ///< "-h" and "--help"
  std::string description;
  ValueKind value;
};

/// A program or a subcommand with what it declares.
struct CommandTree {
  std::string name;
  std::string description;
  std::vector<OptionWords> options;
  ValueKind positional;
  std::vector<CommandTree> subcommands;
};

/// Hidden options are left out, those of option groups are not.
CommandTree commandTreeOf(const CLI::App& app);

}  // namespace korvex::common

#endif
