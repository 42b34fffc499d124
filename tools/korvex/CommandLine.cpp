#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <ostream>
#include <string>
#include <system_error>
#include <vector>

#include "Failure.h"
#include "common/CommandLine.h"
#include "common/Completion.h"
#include "common/Printable.h"
#include "inspect/Inspect.h"
#include "send/FromCommand.h"
#include "send/Send.h"
#include "status/Clean.h"
#include "status/Status.h"
#include "verify/Verify.h"

namespace korvex::tool {
namespace {

constexpr const char* kEpilogue =
    "Is last night's backup missing?\n"
    "  korvex status         is there a daemon, is a stream open, how did the last one end\n"
    "  korvex verify DIR     are the stored streams still what was sent\n"
    "  korvex inspect FILE   what a producer sent, if korvexd ran with --capture\n"
    "  journalctl -u korvexd the daemon's log: why it ended, did not start or stored nothing\n"
    "  korvex clean          removes the queues of a dead daemon\n"
    "\"korvex VERB --help\" describes each verb, docs/troubleshooting.md each common failure.";

constexpr char kGuard = '\x01';

bool needsGuard(char first) { return first == '[' || first == kGuard; }

/// The parser takes a word in brackets for a list, and a file called [] for no file at all. Words
/// that begin like that are guarded from it by a byte in front.
std::vector<std::string> guarded(std::vector<std::string> words) {
  for (std::string& word : words) {
    if (needsGuard(word[0])) word.insert(0, 1, kGuard);
  }
  return words;
}

std::string unguarded(std::string word) {
  return !word.empty() && word.front() == kGuard ? word.substr(1) : word;
}

/// What the parser says of words that may hold anything, for people.
std::string complaint(const CLI::App* tool, const CLI::Error& error) {
  std::string text = common::sentenceOf(*tool, error);
  for (std::size_t at = 0; (at = text.find(kGuard, at)) != std::string::npos; ++at) {
    if (needsGuard(text[at + 1])) text.erase(at, 1);
  }
  return common::printable(text) + "\nRun with --help for more information.\n";
}

void parse(CLI::App& tool, std::vector<std::string> words) {
  for (CLI::App* const command : tool.get_subcommands([](CLI::App*) { return true; })) {
    for (CLI::Option* const option : command->get_options()) option->transform(unguarded);
  }
  words = guarded(std::move(words));
  std::vector<const char*> pointers;
  pointers.reserve(words.size());
  for (const std::string& word : words) pointers.push_back(word.c_str());
  tool.parse(static_cast<int>(pointers.size()), pointers.data());
}

CLI::App* declareCompletion(CLI::App& tool, std::string& shell) {
  CLI::App* const completion =
      tool.add_subcommand("completion", "Print a shell's completion script for this tool");
  completion->add_option("SHELL", shell, "The shell")
      ->required()
      ->check(common::checkShell)
      ->type_name(common::kShells);
  return completion;
}

/// All verbs, and what each is asked to do once the words are parsed.
struct Verbs {
  explicit Verbs(CLI::App& tool)
      : send(declareSend(tool, sendOptions)),
        inspect(declareInspect(tool, inspectOptions)),
        verify(declareVerify(tool, verifyOptions)),
        status(declareStatus(tool, statusOptions)),
        clean(declareClean(tool, cleanOptions)),
        completion(declareCompletion(tool, shell)) {}

  SendOptions sendOptions;
  InspectOptions inspectOptions;
  VerifyOptions verifyOptions;
  StatusOptions statusOptions;
  CleanOptions cleanOptions;
  std::string shell;
  const CLI::App* send;
  const CLI::App* inspect;
  const CLI::App* verify;
  const CLI::App* status;
  const CLI::App* clean;
  const CLI::App* completion;
};

Ending runVerb(const CLI::App& tool, const Verbs& verbs, const StopSignal& stop,
               const Progress& progress, std::ostream& out, std::ostream& errors) {
  const auto shown = [&](bool isQuiet) { return isQuiet ? Progress() : progress; };
  if (verbs.completion->parsed()) {
    out << common::completionFor(tool, verbs.shell);
    return {};
  }
  if (verbs.status->parsed()) return runStatus(verbs.statusOptions, stop, out, errors);
  if (verbs.clean->parsed()) return runClean(verbs.cleanOptions, stop, out, errors);
  if (verbs.inspect->parsed()) return runInspect(verbs.inspectOptions, stop, out, errors);
  if (verbs.verify->parsed()) {
    return runVerify(verbs.verifyOptions, stop, shown(verbs.verifyOptions.quiet), out, errors);
  }
  return runSend(verbs.sendOptions, stop, shown(verbs.sendOptions.quiet), out, errors);
}

Ending runCommand(int argumentCount, const char* const* arguments, const StopSignal& stop,
                  const Progress& progress, std::ostream& out, std::ostream& errors) {
  CLI::App tool("Sends data to korvexd, inspects its queues, and checks what it stored.", "korvex");
  tool.footer(kEpilogue);
  tool.set_version_flag("--version", KORVEX_VERSION);
  tool.failure_message(complaint);
  tool.require_subcommand(0, 1);  // so that an unknown word is named, not called missing
  Verbs verbs(tool);
  std::vector<std::string> words(arguments, arguments + argumentCount);
  verbs.sendOptions.command = cutCommand(*verbs.send, words);
  try {
    parse(tool, std::move(words));
    if (tool.get_subcommands().empty()) throw CLI::RequiredError::Subcommand(1);
  } catch (const CLI::ParseError& error) {
    // --help and --version also exit by exception, but with success.
    const bool isWrong = tool.exit(error, out, errors) != 0;
    return {static_cast<int>(isWrong ? common::ExitCode::WrongUsage : common::ExitCode::Success),
            0};
  }
  return runVerb(tool, verbs, stop, progress, out, errors);
}

/// Failing to write the requested result is a failure, even if the work itself succeeded.
Ending withOutput(Ending ending, std::ostream& out, std::ostream& errors) {
  if (out) errno = 0;
  if (out.flush()) return ending;
  const int error = errno;
  errors << "korvex: cannot write the result to standard output"
         << (error == 0 ? "" : ": " + std::generic_category().message(error)) << std::endl;
  const auto failed = static_cast<int>(common::ExitCode::Failed);
  return {ending.exitCode == 0 ? failed : ending.exitCode, ending.signal};
}

}  // namespace

Ending runTool(int argumentCount, const char* const* arguments, const StopSignal& stop,
               const Progress& progress, std::ostream& out, std::ostream& errors) {
  const Ending ending = runCommand(argumentCount, arguments, stop, progress, out, errors);
  return withOutput(ending, out, errors);
}

}  // namespace korvex::tool
