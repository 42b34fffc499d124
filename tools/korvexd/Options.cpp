#include "korvexd/Options.h"

#include <CLI/CLI.hpp>
#include <ostream>
#include <stdexcept>
#include <utility>

#include "common/CommandLine.h"
#include "common/Completion.h"
#include "common/ExitCode.h"
#include "common/Printable.h"
#include "common/QueueName.h"
#include "korvexd/config/Keys.h"
#include "korvexd/exec/CommandWords.h"

namespace korvexd {
namespace {

using namespace korvex::common;
using korvex::receiver::Limits;
using korvex::receiver::Receiver;

/// Command-line words may hold anything, including terminal escape sequences.
std::string complaint(const CLI::App* app, const CLI::Error& error) {
  return printable(sentenceOf(*app, error)) + "\nRun with --help for more information.\n";
}

/// What the command line says, as texts and numbers.
struct Arguments {
  std::vector<std::string> queues;
  bool replace = false;
  std::string mode;
  std::string group;
  Limits limits = Receiver::Settings().limits;
  std::string output;
  std::string command;
  long engineTimeout = kDefaultEngineTimeout.count();
  long idleTimeout = 0;
  bool discard = false;
  std::string digest = kSha256Name;
  std::string capture;
  std::string statsFile;
  std::string metricsFile;
  std::string logFormat = kTextFormat;
  long drainTimeout = 0;
  std::string configFile;
  bool checksConfig = false;
  bool printsConfig = false;
};

/// What a key of the configuration says of the same text.
template <typename Target>
std::string defectOf(const Key<Target>& key, const std::string& text) {
  try {
    Target scratch;
    key.apply(scratch, text);
    return "";
  } catch (const WrongValue& wrong) {
    return "found '" + text + "', expected " + wrong.what();
  }
}

CLI::Validator fitsQueueKey(const std::string& name) {
  return {[name](std::string& text) { return defectOf(*findKey(queueKeys(), name), text); }, ""};
}

CLI::Validator fitsDaemonKey(const std::string& name) {
  return {[name](std::string& text) { return defectOf(*findKey(daemonKeys(), name), text); }, ""};
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
      ->allow_extra_args(false)
      ->check(checkQueueName)
      ->type_name("NAME");
  app.add_flag("--replace", found.replace, "Replace queues that a dead daemon left behind");
  app.add_option("--mode", found.mode, "Permissions of the queues, octal [600]")
      ->check(fitsQueueKey("mode"))
      ->type_name("OCTAL");
  app.add_option("--group", found.group, "Group of the queues, by name or number")
      ->check(fitsQueueKey("group"))
      ->type_name("GROUP");
  takeWholeNumber(
      *app.add_option("--max-messages", found.limits.messages, "Messages that a queue holds")
           ->capture_default_str(),
      1, Limits::kMostMessages);
  app.add_option("--max-message-size", found.limits.messageSize,
                 "Bytes of the largest message; K, M, G or T may follow")
      ->transform(byteCount)
      ->check(CLI::Range(Limits::kSmallestMessage, Limits::kLargestMessage))
      ->capture_default_str();
}

void addConfigOptions(CLI::App& app, Arguments& found) {
  auto* const file = app.add_option("--config", found.configFile,
                                    "Read queues and settings from FILE, and again on SIGHUP")
                         ->type_name("FILE");
  auto* const check =
      app.add_flag("--check-config", found.checksConfig, "Report every mistake in FILE and exit")
          ->needs(file);
  app.add_flag("--print-config", found.printsConfig,
               "Print the effective settings and where each value comes from, and exit")
      ->excludes(check);
}

void addDataOptions(CLI::App& app, Arguments& found) {
  auto* const sink = app.add_option_group("data", "Where the data goes: one of");
  sink->add_option("--output", found.output, "Store each stream as a folder in DIR")
      ->check(fitsQueueKey("output"))
      ->type_name("DIR");
  sink->add_option("--exec", found.command,
                   "Give each stream to COMMAND as its standard input; no shell runs")
      ->check(checkCommand)
      ->type_name("COMMAND");
  sink->add_flag("--discard", found.discard, "Discard the data");
  sink->require_option(0, 1);
  app.add_option("--digest", found.digest,
                 "Digest that --output keeps: sha256, or only the faster xxh128")
      ->check(fitsQueueKey("digest"))
      ->type_name("sha256|xxh128")
      ->capture_default_str();
  takeSeconds(*app.add_option("--exec-timeout", found.engineTimeout,
                              "Seconds that COMMAND may take to finish, or go without reading")
                   ->capture_default_str(),
              1, kLongestTime);
  takeSeconds(*app.add_option("--idle-timeout", found.idleTimeout,
                              "Seconds that a stream may be silent; no limit by default"),
              1, kLongestTime);
  app.add_option("--capture", found.capture, "Save every message as received in DIR")
      ->check(fitsQueueKey("capture"))
      ->type_name("DIR");
}

void addReportOptions(CLI::App& app, Arguments& found) {
  app.add_option("--stats", found.statsFile, "Keep counters as JSON in FILE")
      ->check(fitsDaemonKey("stats"))
      ->type_name("FILE");
  app.add_option("--metrics", found.metricsFile,
                 "Keep metrics in FILE, for the textfile collector of Prometheus")
      ->check(fitsDaemonKey("metrics"))
      ->type_name("FILE");
  app.add_option("--log-format", found.logFormat, "How the log is written")
      ->check(fitsDaemonKey("log-format"))
      ->type_name("text|json")
      ->capture_default_str();
  takeSeconds(*app.add_option("--drain-timeout", found.drainTimeout,
                              "Seconds that open streams get to finish on shutdown")
                   ->capture_default_str(),
              0, kLongestTime);
}

/// Notes the values of options that were given, as a configuration file has them.
class LayerMaker {
 public:
  explicit LayerMaker(const CLI::App& app) : app_(app) {}

  template <typename Type>
  void add(const std::string& key, const Type& value) {
    if (app_.count("--" + key) > 0) layer_[key] = {Value(value), {Origin::Kind::CommandLine}};
  }

  void add(const std::string& key, std::size_t value) {
    add(key, static_cast<std::int64_t>(value));
  }

  Layer take() { return std::move(layer_); }

 private:
  const CLI::App& app_;
  Layer layer_;
};

Layer queueLayer(const CLI::App& app, const Arguments& found) {
  LayerMaker layer(app);
  layer.add("output", found.output);
  if (!found.command.empty()) layer.add("exec", splitCommand(found.command));
  layer.add("discard", found.discard);
  layer.add("digest", found.digest);
  layer.add("exec-timeout", found.engineTimeout);
  layer.add("idle-timeout", found.idleTimeout);
  layer.add("max-messages", found.limits.messages);
  layer.add("max-message-size", found.limits.messageSize);
  layer.add("mode", found.mode);
  layer.add("group", found.group);
  layer.add("replace", found.replace);
  layer.add("capture", found.capture);
  return layer.take();
}

Layer daemonLayer(const CLI::App& app, const Arguments& found) {
  LayerMaker layer(app);
  layer.add("stats", found.statsFile);
  layer.add("metrics", found.metricsFile);
  layer.add("log-format", found.logFormat);
  layer.add("drain-timeout", found.drainTimeout);
  return layer.take();
}

Options optionsOf(const CLI::App& app, const Arguments& found) {
  Options options;
  if (found.printsConfig) options.task = Options::Task::PrintConfig;
  if (found.checksConfig) options.task = Options::Task::CheckConfig;
  for (const std::string& name : found.queues) {
    options.commandLine.queues.push_back(plainQueueName(name));
  }
  options.commandLine.queue = queueLayer(app, found);
  options.commandLine.daemon = daemonLayer(app, found);
  if (app.count("--config") > 0) options.commandLine.configFile = found.configFile;
  return options;
}

/// Without a configuration file the command line must be complete.
void refuseIncomplete(const CLI::App& app, const CommandLine& commandLine) {
  if (commandLine.configFile) return;
  if (app.count("--queue") == 0) throw CLI::RequiredError("--queue");
  const auto sinks = app.count("--output") + app.count("--exec") + app.count("--discard");
  if (sinks == 0) throw CLI::RequiredError("One of --output,--exec,--discard");
  const Configuration configuration(commandLine, {});
  if (configuration.mistakes().empty()) return;
  throw CLI::ValidationError("--queue", configuration.mistakes().front().text);
}

}  // namespace

ParsedOptions parseOptions(int argc, const char* const* argv, std::ostream& out,
                           std::ostream& err) {
  CLI::App app("Receives streams from producers on this machine.", "korvexd");
  app.failure_message(complaint);
  Arguments found;
  addConfigOptions(app, found);
  addQueueOptions(app, found);
  addDataOptions(app, found);
  addReportOptions(app, found);
  declareCompletion(app);
  app.set_version_flag("--version", "korvexd " KORVEX_VERSION);
  try {
    app.parse(argc, argv);
    const Options options = optionsOf(app, found);
    refuseIncomplete(app, options.commandLine);
    return {options, codeOf(ExitCode::Success)};
  } catch (const CLI::ParseError& error) {
    const bool isWrong = app.exit(error, out, err) != 0;
    return {std::nullopt, isWrong ? codeOf(ExitCode::WrongUsage) : codeOf(ExitCode::Success)};
  }
}

}  // namespace korvexd
