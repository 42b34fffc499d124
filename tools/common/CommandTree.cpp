#include "common/CommandTree.h"

#include <CLI/CLI.hpp>
#include <sstream>

namespace korvex::common {
namespace {

constexpr char kBar = '|';

std::vector<std::string> split(const std::string& text, char separator) {
  std::istringstream stream(text);
  std::vector<std::string> parts;
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

ValueKind valueKindOf(const CLI::Option& option) {
  if (option.get_items_expected_max() == 0) return {};
  const std::string type = option.get_type_name();
  const std::string first = type.substr(0, type.find_first_of(" :"));
  if (first == "DIR") return {ValueKind::Source::Folders, first, {}};
  if (first == "FILE") return {ValueKind::Source::Files, first, {}};
  if (first.find(kBar) == std::string::npos) return {ValueKind::Source::Anything, first, {}};
  return {ValueKind::Source::Choice, first, split(first, kBar)};
}

/// A positional's own name says what it is where its type does not.
ValueKind positionalKindOf(const CLI::Option& option) {
  ValueKind kind = valueKindOf(option);
  if (kind.source != ValueKind::Source::Anything) return kind;
  const std::string& name = option.get_name(true);
  if (name == "DIR") return {ValueKind::Source::Folders, name, {}};
  if (name == "FILE") return {ValueKind::Source::Files, name, {}};
  return {ValueKind::Source::Anything, name, {}};
}

void addOption(CommandTree& tree, const CLI::Option& option) {
  if (option.get_group().empty()) return;
  if (option.get_positional()) {
    tree.positional = positionalKindOf(option);
    return;
  }
  std::vector<std::string> words;
  for (const std::string& name : option.get_snames()) words.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) words.push_back("--" + name);
  tree.options.push_back({words, option.get_description(), valueKindOf(option)});
}

/// A group of options is a subcommand without a name. It has the help option of its program, again.
void addContents(CommandTree& tree, const CLI::App& app) {
  const CLI::Option* const repeated = app.get_name().empty() ? app.get_help_ptr() : nullptr;
  for (const CLI::Option* const option : app.get_options()) {
    if (option != repeated) addOption(tree, *option);
  }
  for (const CLI::App* const command : app.get_subcommands(nullptr)) {
    if (command->get_name().empty()) {
      addContents(tree, *command);
    } else {
      tree.subcommands.push_back(commandTreeOf(*command));
    }
  }
}

}  // namespace

CommandTree commandTreeOf(const CLI::App& app) {
  CommandTree tree{app.get_name(), app.get_description(), {}, {}, {}};
  addContents(tree, app);
  return tree;
}

}  // namespace korvex::common
