#include "korvexd/Options.h"

#include <korvex/ShmWriter.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <ostream>
#include <stdexcept>

#include "common/CommandLine.h"
#include "common/Completion.h"
#include "common/ExitCode.h"
#include "common/Printable.h"
#include "common/QueueName.h"
#include "korvexd/exec/CommandWords.h"

namespace korvexd {
namespace {

using namespace korvex::common;
using korvex::receiver::Limits;
using korvex::receiver::Receiver;

constexpr long kLongestTimeout = 7L * 24 * 3600;
constexpr mode_t kModeNeeded = 0600;
constexpr int kOctal = 8;

/// Words of a command line may hold anything, and a terminal obeys some of it.
std::string complaint(const CLI::App* app, const CLI::Error& error) {
  return printable(sentenceOf(*app, error)) + "\nRun with --help for more information.\n";
}

/// What the command line says, as texts and numbers.
struct Arguments {
  std::vector<std::string> queues;
  bool replace = false;
  std::string mode;
  Limits limits = Receiver::Settings().limits;
  std::string output;
  std::string command;
  long engineTimeout = kDefaultEngineTimeout.count();
  long idleTimeout = 0;
  bool discard = false;
  std::string capture;
  std::string statsFile;
};

std::string checkMode(const std::string& text) {
  const bool isOctal =
      !text.empty() && text.size() <= 4 && text.find_first_not_of("01234567") == std::string::npos;
  if (!isOctal || std::stoul(text, nullptr, kOctal) > 0777) {
    return "found '" + text + "', expected an octal number up to 777";
  }
  if ((std::stoul(text, nullptr, kOctal) & kModeNeeded) != kModeNeeded) {
    return "found '" + text + "', expected read and write permission for the owner (600)";
  }
  return "";
}

std::string checkPath(const std::string& path) {
  return path.empty() ? "expected a path, found nothing" : "";
}

std::string checkCommand(const std::string& text) {
  try {
    splitCommand(text);
    return "";
  } catch (const std::invalid_argument& error) {
    return "found '" + text + "': " + error.what();
  }
}

void addQueueOptions(CLI::App& app, Arguments& found) {
  app.add_option("--queue", found.queues, "Serve this queue; may be given several times")
      ->required()
      ->allow_extra_args(false)
      ->check(checkQueueName)
      ->type_name("NAME");
  app.add_flag("--replace", found.replace, "Replace queues that a dead daemon left behind");
  app.add_option("--mode", found.mode, "Permissions of the queues, octal [600]")
      ->check(checkMode)
      ->type_name("OCTAL");
  app.add_option("--max-messages", found.limits.messages, "Messages that a queue holds")
      ->transform(wholeNumber)
      ->check(CLI::Range(std::size_t{1}, Limits::kMostMessages))
      ->capture_default_str();
  app.add_option("--max-message-size", found.limits.messageSize,
                 "Bytes of the largest message; K, M, G or T may follow")
      ->transform(byteCount)
      ->check(CLI::Range(Limits::kSmallestMessage, Limits::kLargestMessage))
      ->capture_default_str();
}

void addDataOptions(CLI::App& app, Arguments& found) {
  auto* const sink = app.add_option_group("data", "Where the data goes; one of");
  sink->add_option("--output", found.output, "Store each stream as a folder in DIR")
      ->check(checkPath)
      ->type_name("DIR");
  sink->add_option("--exec", found.command,
                   "Give each stream to COMMAND as its standard input; no shell runs")
      ->check(checkCommand)
      ->type_name("COMMAND");
  sink->add_flag("--discard", found.discard, "Forget the data");
  sink->require_option(1);
  app.add_option("--exec-timeout", found.engineTimeout,
                 "Seconds that COMMAND may take to finish, or take nothing")
      ->check(CLI::Range(1L, kLongestTimeout))
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_option("--idle-timeout", found.idleTimeout,
                 "Seconds that a stream may be silent; without it for ever")
      ->check(CLI::Range(1L, kLongestTimeout))
      ->type_name("SECONDS");
  app.add_option("--capture", found.capture, "Keep every message as it came in DIR")
      ->check(checkPath)
      ->type_name("DIR");
  app.add_option("--stats", found.statsFile, "Keep counters as JSON in FILE")
      ->check(checkPath)
      ->type_name("FILE");
}

std::optional<std::string> givenText(const std::string& text) {
  return text.empty() ? std::nullopt : std::make_optional(text);
}

Options optionsOf(const Arguments& found) {
  Options options;
  for (const std::string& name : found.queues) options.queues.push_back(plainQueueName(name));
  if (found.replace) options.queue.existing = Receiver::Existing::Replace;
  if (!found.mode.empty()) {
    options.queue.mode = static_cast<mode_t>(std::stoul(found.mode, nullptr, kOctal));
  }
  options.queue.limits = found.limits;
  options.output = givenText(found.output);
  if (!found.command.empty()) options.engine = splitCommand(found.command);
  options.engineTimeout = std::chrono::seconds(found.engineTimeout);
  if (found.idleTimeout != 0) options.queue.idleTimeout = std::chrono::seconds(found.idleTimeout);
  options.capture = givenText(found.capture);
  options.statsFile = givenText(found.statsFile);
  return options;
}

/// No two queues may mean the same object, and a response queue is one as well.
void refuseClashes(const std::vector<std::string>& queues) {
  std::vector<std::string> names;
  for (const std::string& queue : queues) {
    names.push_back(queue);
    names.push_back(korvex::getMessageQueueResponseName(queue));
  }
  std::sort(names.begin(), names.end());
  const auto twin = std::adjacent_find(names.begin(), names.end());
  if (twin == names.end()) return;
  throw CLI::ValidationError("--queue", "two of the queues would use the name '" + *twin + "'");
}

void refuseLongFileNames(const Options& options) {
  if (!options.output && !options.capture && options.engine.empty()) return;
  for (const std::string& queue : options.queues) {
    const std::size_t length = fileNameOf(queue).size();
    if (length <= kLongestFileName) continue;
    throw CLI::ValidationError("--queue", "'" + queue + "' makes a file name of " +
                                              std::to_string(length) + " characters, expected " +
                                              "at most " + std::to_string(kLongestFileName));
  }
}

}  // namespace

ParsedOptions parseOptions(int argc, const char* const* argv, std::ostream& out,
                           std::ostream& err) {
  CLI::App app("Receives streams from producers on this machine.", "korvexd");
  app.failure_message(complaint);
  Arguments found;
  addQueueOptions(app, found);
  addDataOptions(app, found);
  declareCompletion(app);
  app.set_version_flag("--version", "korvexd " KORVEX_VERSION);
  try {
    app.parse(argc, argv);
    const Options options = optionsOf(found);
    refuseClashes(options.queues);
    refuseLongFileNames(options);
    return {options, codeOf(ExitCode::Success)};
  } catch (const CLI::ParseError& error) {
    const bool isWrong = app.exit(error, out, err) != 0;
    return {std::nullopt, isWrong ? codeOf(ExitCode::WrongUsage) : codeOf(ExitCode::Success)};
  }
}

}  // namespace korvexd
