#ifndef KORVEXD_SINKS_H
#define KORVEXD_SINKS_H

#include <functional>
#include <korvex/receiver/Sink.h>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "korvexd/config/Settings.h"
#include "korvexd/exec/ExecStore.h"
#include "korvexd/sink/DirectoryStore.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// Where the streams of all queues go. Each queue has a sink of its own; queues with the same
/// output folder share its store, and all engines of the process share one.
///
/// Outlives the factories that it gives. Used by one thread; the factories by any.
class Sinks {
 public:
  /// `isEnding` tells whether the process is to end soon.
  explicit Sinks(std::function<bool()> isEnding);

  /// Throws SystemError when streams cannot be stored as this queue wants it: no such folder, no
  /// such program.
  receiver::SinkFactory factoryFor(const QueueSettings& queue);

  /// The failures of a queue's engines since the start.
  EngineFailureCounts engineFailuresOf(const std::string& queue) const;

  /// Call it periodically.
  void tidyUp() noexcept;

 private:
  receiver::SinkFactory folderFactory(const std::string& path, ExtraDigest digest);
  receiver::SinkFactory engineFactory(const ExecStore::Command& command);

  const std::function<bool()> isEnding_;
  std::map<std::string, std::weak_ptr<DirectoryStore>> folders_;
  std::optional<ExecStore> engines_;  ///< from the first queue with an engine on
};

}  // namespace korvexd

#endif
