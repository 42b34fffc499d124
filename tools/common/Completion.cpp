#include "common/Completion.h"

#include <CLI/CLI.hpp>

#include "common/CommandTree.h"

namespace korvex::common {
namespace {

using Source = ValueKind::Source;

constexpr const char* kShellOption = "--completion";

std::string joined(const std::vector<std::string>& words, const std::string& separator = " ") {
  return CLI::detail::join(words, separator);
}

/// For any of the shells. A backslash stands outside the quotes, since fish takes one inside for an
/// escape.
std::string shellQuoted(const std::string& text) {
  std::string safe = "'";
  for (const char character : text) {
    const bool isSpecial = character == '\'' || character == '\\';
    safe += isSpecial ? std::string("'\\") + character + "'" : std::string(1, character);
  }
  return safe + "'";
}

std::string functionOf(const CommandTree& program) { return "_" + program.name; }

std::vector<std::string> namesOf(const std::vector<CommandTree>& commands) {
  std::vector<std::string> names;
  names.reserve(commands.size());
  for (const CommandTree& command : commands) names.push_back(command.name);
  return names;
}

// ---- bash

/// What a bash function does for a word of this kind.
std::string bashReply(const ValueKind& value) {
  switch (value.source) {
    case Source::Files:
      return "compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- "
             "\"$current\")";
    case Source::Folders:
      return "compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -d -- "
             "\"$current\")";
    case Source::Choice:
      return "mapfile -t COMPREPLY < <(compgen -W " + shellQuoted(joined(value.choices)) +
             " -- \"$current\")";
    case Source::None:
    case Source::Anything:
      break;
  }
  return "COMPREPLY=()";
}

std::string bashWords(const std::vector<std::string>& words) {
  return bashReply({Source::Choice, "", words});
}

/// The cases of one command: after an option that has a value, at an option, elsewhere.
std::string bashCases(const CommandTree& command, const std::string& verb) {
  std::string cases;
  std::vector<std::string> all;
  for (const OptionWords& option : command.options) {
    all.insert(all.end(), option.words.begin(), option.words.end());
    if (option.value.source == Source::None) continue;
    for (const std::string& word : option.words) {
      const auto typed = std::string(verb).append(" ").append(word).append(" ");
      cases += "    " + shellQuoted(typed) + "*) " + bashReply(option.value) + " ;;\n";
    }
  }
  cases += "    " + shellQuoted(verb + " ") + "*' -'*) " + bashWords(all) + " ;;\n";
  const bool hasVerbs = !command.subcommands.empty();
  return cases + "    " + shellQuoted(verb + " ") + "*) " +
         (hasVerbs ? bashWords(namesOf(command.subcommands)) : bashReply(command.positional)) +
         " ;;\n";
}

std::string bashCompletion(const CommandTree& program) {
  std::string script = "# Completes the words of " + program.name + " in bash.\n" +
                       functionOf(program) +
                       "() {\n"
                       "  local current=${COMP_WORDS[COMP_CWORD]} verb= i\n"
                       "  local previous=${COMP_WORDS[COMP_CWORD-1]}\n"
                       "  COMPREPLY=()\n";
  if (!program.subcommands.empty()) {
    script += "  for ((i = 1; i < COMP_CWORD; i++)); do\n    case ${COMP_WORDS[i]} in " +
              joined(namesOf(program.subcommands), " | ") +
              ") verb=${COMP_WORDS[i]}; break ;; esac\n  done\n";
  }
  script += "  case \"$verb $previous $current\" in\n";
  for (const CommandTree& command : program.subcommands) script += bashCases(command, command.name);
  return script + bashCases(program, "") + "  esac\n}\ncomplete -F " + functionOf(program) + " " +
         program.name + "\n";
}

// ---- zsh

std::string zshEscaped(const std::string& text) {
  std::string safe;
  for (const char character : text) {
    if (character == '[' || character == ']' || character == ':' || character == '\\') safe += '\\';
    safe += character;
  }
  return safe;
}

/// ":NAME:ACTION", as _arguments wants it.
std::string zshValue(const ValueKind& value) {
  switch (value.source) {
    case Source::None:
      return "";
    case Source::Anything:
      return ":" + zshEscaped(value.title) + ": ";
    case Source::Files:
      return ":" + value.title + ":_files";
    case Source::Folders:
      return ":" + value.title + ":_files -/";
    case Source::Choice:
      break;
  }
  return ":" + zshEscaped(value.title) + ":(" + joined(value.choices) + ")";
}

std::string zshArguments(const CommandTree& command, const std::string& indent) {
  std::string text;
  for (const OptionWords& option : command.options) {
    for (const std::string& word : option.words) {
      text += " \\\n" + indent +
              shellQuoted("*" + word + "[" + zshEscaped(option.description) + "]" +
                          zshValue(option.value));
    }
  }
  if (command.positional.source != Source::None) {
    text += " \\\n" + indent + shellQuoted("*" + zshValue(command.positional));
  }
  return text;
}

std::string zshVerbs(const CommandTree& program) {
  std::string text;
  for (const CommandTree& command : program.subcommands) {
    text += "\n    " + shellQuoted(command.name + ":" + zshEscaped(command.description));
  }
  return text;
}

std::string zshBody(const CommandTree& program) {
  if (program.subcommands.empty()) return "  _arguments -s" + zshArguments(program, "    ") + "\n";
  std::string text =
      "  local context state state_descr line\n  typeset -A opt_args\n"
      "  local -a verbs=(" +
      zshVerbs(program) +
      "\n  )\n"
      "  _arguments -C" +
      zshArguments(program, "    ") +
      " \\\n    '1: :->verb' '*:: :->words'\n"
      "  case $state in\n    verb) _describe verb verbs ;;\n    words)\n"
      "      case $words[1] in\n";
  for (const CommandTree& command : program.subcommands) {
    text += "        " + command.name + ") _arguments -s" + zshArguments(command, "          ") +
            " ;;\n";
  }
  return text + "      esac ;;\n  esac\n";
}

std::string zshCompletion(const CommandTree& program) {
  const std::string function = functionOf(program);
  return "#compdef " + program.name + "\n# Completes the words of " + program.name + " in zsh.\n" +
         function + "() {\n" + zshBody(program) + "}\nif [ \"$funcstack[1]\" = " + function +
         " ]; then " + function + " \"$@\"; else compdef " + function + " " + program.name +
         "; fi\n";
}

// ---- fish

std::string fishValue(const ValueKind& value) {
  switch (value.source) {
    case Source::None:
      return "";
    case Source::Anything:
      return " -x";
    case Source::Files:
      return " -r -F";
    case Source::Folders:
      return " -x -a '(__fish_complete_directories)'";
    case Source::Choice:
      break;
  }
  return " -x -a " + shellQuoted(joined(value.choices));
}

std::string fishOption(const OptionWords& option) {
  std::string text;
  for (const std::string& word : option.words) {
    const bool isLong = word.rfind("--", 0) == 0;
    text += (isLong ? " -l " : " -s ") + word.substr(isLong ? 2 : 1);
  }
  return text + fishValue(option.value) + " -d " + shellQuoted(option.description);
}

std::string fishLines(const CommandTree& command, const std::string& start) {
  std::string text;
  for (const OptionWords& option : command.options) text += start + fishOption(option) + "\n";
  const ValueKind& value = command.positional;
  if (value.source == Source::Files) return text + start + " -F\n";
  return value.source == Source::None || value.source == Source::Anything
             ? text
             : text + start + fishValue(value).substr(sizeof " -x" - 1) + "\n";
}

std::string fishCompletion(const CommandTree& program) {
  const std::string start = "complete -c " + program.name;
  std::string text = "# Completes the words of " + program.name + " in fish.\n" + start + " -f\n";
  if (program.subcommands.empty()) return text + fishLines(program, start);
  text += fishLines(program, start + " -n __fish_use_subcommand");
  for (const CommandTree& command : program.subcommands) {
    text += start + " -n __fish_use_subcommand -a " + command.name + " -d " +
            shellQuoted(command.description) + "\n" +
            fishLines(command, start + " -n '__fish_seen_subcommand_from " + command.name + "'");
  }
  return text;
}

}  // namespace

std::string checkShell(const std::string& word) {
  if (word == "bash" || word == "zsh" || word == "fish") return "";
  return "found '" + word + "', expected bash, zsh or fish";
}

std::string completionFor(const CLI::App& program, const std::string& shell) {
  const CommandTree tree = commandTreeOf(program);
  if (shell == "zsh") return zshCompletion(tree);
  return shell == "fish" ? fishCompletion(tree) : bashCompletion(tree);
}

void declareCompletion(CLI::App& program) {
  program
      .add_option_function<std::string>(
          kShellOption,
          [&program](const std::string& shell) {
            // The parser prints what leaves it like this, and asks for no option that is missing.
            throw CLI::CallForVersion(completionFor(program, shell), 0);
          },
          "Print a shell's completion script for this program, and exit")
      ->check(checkShell)
      ->type_name(kShells);
}

}  // namespace korvex::common
