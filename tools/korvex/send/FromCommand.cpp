#include "send/FromCommand.h"

#include <CLI/CLI.hpp>

#include "common/CommandLine.h"
#include "send/Send.h"

namespace korvex::tool {
namespace {

constexpr const char* kFlag = "--from-command";
constexpr std::string_view kEndOfOptions = "--";

bool isOption(const std::string& word) { return word.size() > 1 && word.front() == '-'; }

/// Whether the word is an option whose value is the next word.
bool takesNextWord(const CLI::App& send, const std::string& word) {
  const CLI::Option* const option = send.get_option_no_throw(word);
  return option != nullptr && option->get_items_expected_min() > 0;
}

/// The place after the last word of the tool's own; the number of words when there is no command.
std::size_t commandBegin(const CLI::App& send, const std::vector<std::string>& words) {
  bool hasFlag = false;
  for (std::size_t i = 2; i < words.size(); ++i) {
    if (words[i] == kEndOfOptions) return hasFlag ? i : words.size();
    if (!isOption(words[i]) && hasFlag) return i;
    if (words[i] == kFlag) hasFlag = true;
    if (takesNextWord(send, words[i])) ++i;
  }
  return words.size();
}

void check(const SendOptions& options) {
  if (!options.fromCommand) return;
  if (!options.files.empty()) {
    throw CLI::ValidationError(kFlag, "found the file '" + options.files.front() +
                                          "' in front of it, expected only a command after it");
  }
  if (options.command.empty()) {
    throw CLI::ValidationError(kFlag, "expected a command after it, found nothing");
  }
  if (options.command.front().empty()) {
    throw CLI::ValidationError(kFlag, "the command's name is empty");
  }
}

}  // namespace

void declareFromCommand(CLI::App& send, SendOptions& options) {
  CLI::Option* const flag = send.add_flag(
      kFlag, options.fromCommand,
      "Run a command and send its output; the command begins at the first word that is not an "
      "option, or after --");
  CLI::Option* const timeout = send.add_option(
      "--command-timeout", options.commandTimeout,
      "Seconds that the command may keep running after its output ends, or that its output may "
      "stay silent after the command ends");
  common::takeSeconds(*timeout->needs(flag)->capture_default_str(), 1, kLongestTimeout);
  send.final_callback([&options] { check(options); });
}

std::vector<std::string> cutCommand(const CLI::App& send, std::vector<std::string>& words) {
  if (words.size() < 2 || words[1] != send.get_name()) return {};
  const std::size_t begin = commandBegin(send, words);
  const auto first = words.begin() + static_cast<std::ptrdiff_t>(begin);
  const bool isMarked = first != words.end() && *first == kEndOfOptions;
  std::vector<std::string> command(isMarked ? first + 1 : first, words.end());
  words.erase(first, words.end());
  return command;
}

}  // namespace korvex::tool
