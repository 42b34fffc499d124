#ifndef KORVEXD_EXEC_STORE_H
#define KORVEXD_EXEC_STORE_H

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <korvex/receiver/Sink.h>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "korvexd/exec/Engine.h"
#include "korvexd/exec/Keepers.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// Starts an engine for each stream, and tracks those that take long to die. One per process;
/// outlives its sinks. Any thread may use it.
class ExecStore {
 public:
  struct Command {
    std::vector<std::string> words;  ///< not empty
    std::chrono::seconds timeout;    ///< for an engine that takes nothing or does not finish
  };

  /// `isEnding` tells whether the process is to end soon. Throws SystemError.
  explicit ExecStore(std::function<bool()> isEnding);

  /// Starts an engine. Throws SystemError when it does not run.
  std::unique_ptr<receiver::Sink> open(const Command& command, const std::string& queue,
                                       std::time_t opened);

  /// Takes over an engine that was ordered to die and has not yet. When it throws, the caller still
  /// has it.
  void lookAfter(std::unique_ptr<Engine>&& engine);

  /// Counts a failure of an engine of this queue.
  void noteFailure(const std::string& queue, EngineFailure failure);

  /// The failures of the queue's engines since the start.
  EngineFailureCounts failuresOf(const std::string& queue) const;

  /// Releases those that have died since. Call it periodically.
  void tidyUp() noexcept;

 private:
  std::string nameFor(const std::string& queue, std::time_t opened);

  const std::function<bool()> isEnding_;
  Keepers keepers_;
  mutable std::mutex mutex_;
  std::uint64_t lastNumber_ = 0;
  std::vector<std::unique_ptr<Engine>> dying_;
  std::map<std::string, EngineFailureCounts> failures_;  ///< by queue
};

}  // namespace korvexd

#endif
