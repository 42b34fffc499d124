#include "korvexd/config/ConfigFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <korvex/receiver/Receiver.h>
#include <korvex/receiver/SystemError.h>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <toml++/toml.h>
#include <unistd.h>

#include "common/QueueName.h"
#include "korvexd/config/Keys.h"
#include "korvexd/os/File.h"

namespace korvexd {
namespace {

constexpr std::size_t kChunk = std::size_t{16} * 1024;

using korvex::common::plainQueueName;
using korvex::receiver::queueNameDefect;

Origin originOf(const toml::source_region& region) {
  return {Origin::Kind::File, region.begin.line, region.begin.column};
}

/// None for a list that holds anything but texts.
std::optional<Value> listOf(const toml::array& array) {
  std::vector<std::string> words;
  for (const toml::node& node : array) {
    const auto* const word = node.as_string();
    if (word == nullptr) return std::nullopt;
    words.push_back(word->get());
  }
  return words;
}

/// None for what no key takes: fractions, dates, tables.
std::optional<Value> valueOf(const toml::node& node) {
  if (const auto* const text = node.as_string()) return text->get();
  if (const auto* const number = node.as_integer()) return number->get();
  if (const auto* const truth = node.as_boolean()) return truth->get();
  if (const auto* const array = node.as_array()) return listOf(*array);
  return std::nullopt;
}

/// For a person, on one line.
std::string foundText(const toml::node& node) {
  if (const auto value = valueOf(node)) return tomlOf(*value);
  if (node.is_table()) return "a table";
  if (node.is_array()) return "a list with elements other than strings";
  std::ostringstream text;
  text << toml::node_view<const toml::node>(node);
  return text.str();
}

std::string listText(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

template <typename Target>
std::vector<std::string> namesOf(const std::vector<Key<Target>>& keys) {
  std::vector<std::string> names;
  names.reserve(keys.size());
  for (const Key<Target>& key : keys) names.push_back(key.name);
  return names;
}

/// Reads one file's tables.
class TableReader {
 public:
  ConfigFile read(const toml::table& root) {
    for (auto&& [key, node] : root) readTop(key, node);
    std::sort(file_.queues.begin(), file_.queues.end(), [](const auto& one, const auto& other) {
      return isBefore(one.origin, other.origin);
    });
    return std::move(file_);
  }

 private:
  void readTop(const toml::key& key, const toml::node& node) {
    if (key == "daemon") return readTable(key, node, daemonKeys(), file_.daemon);
    if (key == "defaults") return readTable(key, node, queueKeys(), file_.defaults);
    if (key == "queue") return readQueues(node);
    refuse(key.source(), "found '" + std::string(key.str()) +
                             "', expected one of [daemon], [defaults] and [queue.NAME]");
  }

  void readQueues(const toml::node& node) {
    const toml::table* const queues = node.as_table();
    if (queues == nullptr) {
      return refuse(node.source(),
                    "queue: found " + foundText(node) + ", expected tables [queue.NAME]");
    }
    for (auto&& [key, queue] : *queues) readQueue(key, queue);
  }

  void readQueue(const toml::key& key, const toml::node& node) {
    const std::string name(key.str());
    const std::string defect = queueNameDefect(name);
    if (!defect.empty()) {
      refuse(key.source(), tomlString(name) + " cannot be a queue's name: " + defect);
    }
    ConfigFile::Queue queue{plainQueueName(name), originOf(key.source()), {}};
    readTable(key, node, queueKeys(), queue.values);
    if (defect.empty() && node.is_table()) file_.queues.push_back(std::move(queue));
  }

  template <typename Target>
  void readTable(const toml::key& name, const toml::node& node,
                 const std::vector<Key<Target>>& keys, Layer& values) {
    const toml::table* const table = node.as_table();
    if (table == nullptr) {
      return refuse(node.source(),
                    std::string(name.str()) + ": found " + foundText(node) + ", expected a table");
    }
    for (auto&& [key, value] : *table) readValue(key, value, keys, values);
    refuseTwoSinks(values);
  }

  template <typename Target>
  void readValue(const toml::key& name, const toml::node& node,
                 const std::vector<Key<Target>>& keys, Layer& values) {
    const Key<Target>* const key = findKey(keys, std::string(name.str()));
    if (key == nullptr) {
      return refuse(name.source(), "unknown key '" + std::string(name.str()) +
                                       "', expected one of " + listText(namesOf(keys)));
    }
    // What is of no type that any key takes is as wrong for every key as an empty list.
    const Value value = valueOf(node).value_or(std::vector<std::string>());
    values[key->name] = {value, originOf(node.source())};
    try {
      Target scratch;
      key->apply(scratch, value);
    } catch (const WrongValue& wrong) {
      refuse(node.source(),
             std::string(key->name) + ": found " + foundText(node) + ", expected " + wrong.what());
    }
  }

  /// Reported at the second one, as the first may be the right one.
  void refuseTwoSinks(const Layer& values) {
    std::vector<std::pair<Origin, std::string>> sinks;
    for (const std::string& key : sinkKeys()) {
      const auto found = values.find(key);
      if (found != values.end()) sinks.emplace_back(found->second.origin, key);
    }
    std::sort(sinks.begin(), sinks.end(),
              [](const auto& one, const auto& other) { return isBefore(one.first, other.first); });
    for (std::size_t i = 1; i < sinks.size(); ++i) {
      file_.mistakes.push_back({sinks[i].first, "found " + sinks[i].second + " beside " +
                                                    sinks[0].second + ", expected one of " +
                                                    listText(sinkKeys())});
    }
  }

  void refuse(const toml::source_region& where, const std::string& text) {
    file_.mistakes.push_back({originOf(where), text});
  }

  ConfigFile file_;
};

void refuseOtherThanFile(const File& file, const std::string& doing) {
  struct stat found = {};
  if (::fstat(file.descriptor(), &found) == 0 && S_ISREG(found.st_mode)) return;
  throw std::runtime_error(doing + ": found something else, expected a file");
}

}  // namespace

ConfigFile parseConfigFile(const std::string& text) {
  try {
    return TableReader().read(toml::parse(text));
  } catch (const toml::parse_error& error) {
    ConfigFile file;
    file.mistakes.push_back({originOf(error.source()), std::string(error.description())});
    return file;
  }
}

ConfigFile readConfigFile(const std::string& path) {
  const std::string doing = "reading configuration " + path;
  const auto fail = [&] { throw receiver::SystemError(doing, errno); };
  // Opening a pipe without a writer would block forever, and the daemon with it.
  const File file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file.descriptor() < 0) fail();
  refuseOtherThanFile(file, doing);
  std::string text;
  std::array<char, kChunk> chunk;
  for (;;) {
    const ssize_t size = ::read(file.descriptor(), chunk.data(), chunk.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) fail();
    if (size == 0) return parseConfigFile(text);
    text.append(chunk.data(), static_cast<std::size_t>(size));
  }
}

}  // namespace korvexd
