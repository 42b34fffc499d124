#ifndef KORVEXD_CONFIGURATION_H
#define KORVEXD_CONFIGURATION_H

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "korvexd/config/ConfigFile.h"
#include "korvexd/config/Settings.h"
#include "korvexd/config/Value.h"

namespace korvexd {

/// The command line's values, already validated.
struct CommandLine {
  std::vector<std::string> queues;  ///< without leading slash
  Layer queue;                      ///< for every queue
  Layer daemon;
  std::optional<std::string> configFile;
};

/// The effective settings and the origin of each: the command line takes precedence over the
/// queue's table, that over the file's defaults, those over the built-in ones. The destination is
/// one setting: naming one overrides any destination named at a lower level.
class Configuration {
 public:
  Configuration(const CommandLine& commandLine, ConfigFile file);

  /// All of them, in the order of the file; settings() are for use when there are none.
  const std::vector<Mistake>& mistakes() const noexcept { return mistakes_; }

  const Settings& settings() const noexcept { return settings_; }

  /// Adds what the system lacks to the mistakes: folders and programs that are named and that this
  /// process cannot use. Leaves out queues that are served as they are to be: what they have lost
  /// since then is reported by their streams, and must not hold up changes of other queues.
  void checkSystem(const std::function<bool(const QueueSettings&)>& isServed);

  /// Writes TOML that, read again, gives the same settings. A comment names each value's origin.
  void print(std::ostream& to) const;

  /// "FILE:LINE:COLUMN: what is wrong".
  std::string textOf(const Mistake& mistake) const;

 private:
  struct Queue {
    std::string name;
    Origin origin;
    Layer values;
  };

  void addQueues(const CommandLine& commandLine, const ConfigFile& file);
  void addQueue(const std::string& name, const Origin& origin, const Layer& own,
                const CommandLine& commandLine, const ConfigFile& file);
  void takeSettings();
  void refuseNoQueue();
  void refuseClashes();
  void refuseWithoutSink(const Queue& queue);
  void refuseLongFileName(const Queue& queue);
  void refuseMissing(const Queue& queue);
  void addMistake(Mistake mistake);
  void sortMistakes();
  void printValue(std::ostream& to, const char* key, const Layer& values) const;
  std::string textOf(const Origin& origin) const;

  const std::string fileName_;
  Layer daemon_;
  std::vector<Queue> queues_;
  Settings settings_;
  std::vector<Mistake> mistakes_;
};

/// Reads the file that the command line names, if any. Throws as readConfigFile() does.
Configuration readConfiguration(const CommandLine& commandLine);

}  // namespace korvexd

#endif
