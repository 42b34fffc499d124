#include "korvexd/config/Configuration.h"

#include <algorithm>
#include <korvex/ShmWriter.h>
#include <korvex/receiver/SystemError.h>
#include <map>
#include <ostream>
#include <utility>

#include "common/Printable.h"
#include "common/QueueName.h"
#include "korvexd/config/Keys.h"
#include "korvexd/exec/CommandWords.h"
#include "korvexd/report/Capture.h"
#include "korvexd/sink/DirectoryStore.h"

namespace korvexd {
namespace {

using korvex::common::fileNameOf;
using korvex::common::kLongestFileName;
using korvex::common::printable;

template <typename Target>
Layer standardLayer(const std::vector<Key<Target>>& keys) {
  Layer values;
  for (const Key<Target>& key : keys)
    if (key.standard) values[key.name] = {*key.standard, {}};
  return values;
}

bool namesASink(const Layer& values) {
  const auto& sinks = sinkKeys();
  return std::any_of(sinks.begin(), sinks.end(),
                     [&](const std::string& key) { return values.count(key) > 0; });
}

void overrule(Layer& values, const Layer& by) {
  if (namesASink(by))
    for (const std::string& key : sinkKeys()) values.erase(key);
  for (const auto& [key, given] : by) values[key] = given;
}

template <typename Target>
void apply(const std::vector<Key<Target>>& keys, const Layer& values, Target& target) {
  for (const Key<Target>& key : keys) {
    const auto given = values.find(key.name);
    if (given != values.end()) key.apply(target, given->second.value);
  }
}

/// A key whose value names something of the system.
struct SystemKey {
  const char* name;
  const char* expected;
  void (*tryOut)(const QueueSettings& settings);  ///< throws SystemError as the start would
};

constexpr SystemKey kSystemKeys[] = {
    {"output", "a folder to write to",
     [](const QueueSettings& settings) { DirectoryStore store(*settings.output); }},
    {"exec", "a program to run",
     [](const QueueSettings& settings) { findProgram(settings.engine.front()); }},
    {"capture", "a folder", [](const QueueSettings& settings) {
       Capture capture(*settings.capture, settings.receiver.queue);
     }}};

/// Empty for a value that is refused whatever the system has.
std::string defectOf(const SystemKey& key, const Value& value, const std::string& queue) {
  QueueSettings settings;
  settings.receiver.queue = queue;
  try {
    findKey(queueKeys(), key.name)->apply(settings, value);
    key.tryOut(settings);
    return "";
  } catch (const WrongValue&) {
    return "";
  } catch (const korvex::receiver::SystemError& error) {
    const std::string what =
        std::string(key.name) + ": found " + tomlOf(value) + ", expected " + key.expected;
    return korvex::receiver::SystemError(what, error.number()).what();
  }
}

bool makesFiles(const Layer& values) {
  return values.count("output") + values.count("exec") + values.count("capture") > 0;
}

}  // namespace

Configuration::Configuration(const CommandLine& commandLine, ConfigFile file)
    : fileName_(printable(commandLine.configFile.value_or(""))),
      daemon_(standardLayer(daemonKeys())),
      mistakes_(std::move(file.mistakes)) {
  overrule(daemon_, file.daemon);
  overrule(daemon_, commandLine.daemon);
  addQueues(commandLine, file);
  if (mistakes_.empty()) refuseNoQueue();
  refuseClashes();
  for (const Queue& queue : queues_) {
    refuseWithoutSink(queue);
    refuseLongFileName(queue);
  }
  sortMistakes();
  if (mistakes_.empty()) takeSettings();
}

/// After mistakes in the file there are no settings to compare.
void Configuration::checkSystem(const std::function<bool(const QueueSettings&)>& isServed) {
  const bool hasSettings = mistakes_.empty();
  for (std::size_t i = 0; i < queues_.size(); ++i) {
    if (!hasSettings || !isServed(settings_.queues[i])) refuseMissing(queues_[i]);
  }
  sortMistakes();
}

void Configuration::sortMistakes() {
  std::stable_sort(mistakes_.begin(), mistakes_.end(), [](const auto& one, const auto& other) {
    return isBefore(one.origin, other.origin);
  });
}

void Configuration::addQueues(const CommandLine& commandLine, const ConfigFile& file) {
  for (const ConfigFile::Queue& queue : file.queues) {
    addQueue(queue.name, queue.origin, queue.values, commandLine, file);
  }
  for (const std::string& name : commandLine.queues) {
    const bool isInFile =
        std::any_of(file.queues.begin(), file.queues.end(),
                    [&](const ConfigFile::Queue& queue) { return queue.name == name; });
    if (!isInFile) addQueue(name, {Origin::Kind::CommandLine}, {}, commandLine, file);
  }
}

void Configuration::addQueue(const std::string& name, const Origin& origin, const Layer& own,
                             const CommandLine& commandLine, const ConfigFile& file) {
  Layer values = standardLayer(queueKeys());
  overrule(values, file.defaults);
  overrule(values, own);
  overrule(values, commandLine.queue);
  queues_.push_back({name, origin, std::move(values)});
}

void Configuration::takeSettings() {
  apply(daemonKeys(), daemon_, settings_.daemon);
  for (const Queue& queue : queues_) {
    QueueSettings settings;
    settings.receiver.queue = queue.name;
    apply(queueKeys(), queue.values, settings);
    settings_.queues.push_back(std::move(settings));
  }
}

void Configuration::refuseNoQueue() {
  if (!queues_.empty()) return;
  mistakes_.push_back(
      {{Origin::Kind::File, 1, 1}, "found no queue, expected a table [queue.NAME]"});
}

/// No two queues may mean the same object, and a response queue is an object too.
void Configuration::refuseClashes() {
  std::map<std::string, const Queue*> owners;
  for (const Queue& queue : queues_) {
    for (const auto& name : {queue.name, korvex::getMessageQueueResponseName(queue.name)}) {
      const auto [owner, isFree] = owners.emplace(name, &queue);
      if (isFree) continue;
      mistakes_.push_back({queue.origin, "two of the queues would use the name '" + name +
                                             "'; the other is " + owner->second->name + ", " +
                                             textOf(owner->second->origin)});
      break;
    }
  }
}

void Configuration::refuseWithoutSink(const Queue& queue) {
  if (namesASink(queue.values)) return;
  mistakes_.push_back({queue.origin, "queue " + queue.name +
                                         ": found no output, exec or discard, expected one, here "
                                         "or in [defaults]"});
}

void Configuration::refuseLongFileName(const Queue& queue) {
  const std::size_t length = fileNameOf(queue.name).size();
  if (!makesFiles(queue.values) || length <= kLongestFileName) return;
  mistakes_.push_back({queue.origin, "'" + queue.name + "' makes a file name of " +
                                         std::to_string(length) + " characters, expected at most " +
                                         std::to_string(kLongestFileName)});
}

void Configuration::refuseMissing(const Queue& queue) {
  for (const SystemKey& key : kSystemKeys) {
    const auto given = queue.values.find(key.name);
    if (given == queue.values.end()) continue;
    const std::string defect = defectOf(key, given->second.value, queue.name);
    if (!defect.empty()) addMistake({given->second.origin, defect, Mistake::Remedy::System});
  }
}

/// Once, though many queues may have the value from the defaults.
void Configuration::addMistake(Mistake mistake) {
  const bool isKnown = std::any_of(mistakes_.begin(), mistakes_.end(), [&](const Mistake& known) {
    return known.text == mistake.text && !isBefore(known.origin, mistake.origin) &&
           !isBefore(mistake.origin, known.origin);
  });
  if (!isKnown) mistakes_.push_back(std::move(mistake));
}

void Configuration::print(std::ostream& to) const {
  to << "[daemon]\n";
  for (const auto& key : daemonKeys()) printValue(to, key.name, daemon_);
  for (const Queue& queue : queues_) {
    to << "\n[queue." << tomlKey(queue.name) << "]  # " << textOf(queue.origin) << "\n";
    for (const auto& key : queueKeys()) printValue(to, key.name, queue.values);
  }
}

void Configuration::printValue(std::ostream& to, const char* key, const Layer& values) const {
  const auto given = values.find(key);
  if (given == values.end()) {
    to << "# " << key << ": not set\n";
  } else {
    to << key << " = " << tomlOf(given->second.value) << "  # " << textOf(given->second.origin)
       << "\n";
  }
}

std::string Configuration::textOf(const Origin& origin) const {
  switch (origin.kind) {
    case Origin::Kind::Default:
      return "default";
    case Origin::Kind::CommandLine:
      return "command line";
    case Origin::Kind::File:
      break;
  }
  return fileName_ + ":" + std::to_string(origin.line);
}

std::string Configuration::textOf(const Mistake& mistake) const {
  const bool isInFile = mistake.origin.kind == Origin::Kind::File;
  const std::string column = isInFile ? ":" + std::to_string(mistake.origin.column) : "";
  return textOf(mistake.origin) + column + ": " + printable(mistake.text);
}

Configuration readConfiguration(const CommandLine& commandLine) {
  const auto& path = commandLine.configFile;
  return {commandLine, path ? readConfigFile(*path) : ConfigFile()};
}

}  // namespace korvexd
