#ifndef KORVEXD_CONFIG_SETTINGS_H
#define KORVEXD_CONFIG_SETTINGS_H

#include <chrono>
#include <korvex/receiver/Receiver.h>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "korvexd/log/LogFormat.h"
#include "korvexd/sink/ExtraDigest.h"

namespace korvexd {

constexpr std::chrono::seconds kDefaultEngineTimeout{3600};

/// How one queue is served; checked.
struct QueueSettings {
  korvex::receiver::Receiver::Settings receiver;  ///< its queue without leading slash
  std::optional<std::string> output;
  ExtraDigest digest = ExtraDigest::Sha256;  ///< of what is stored in the output folder
  std::vector<std::string> engine;  ///< the words of its command; without it and an output folder
                                    ///< the data is discarded
  std::chrono::seconds engineTimeout = kDefaultEngineTimeout;
  std::optional<std::string> capture;
};

/// Whether a queue is served in the same way with both. `receiver.existing` is not compared: it
/// matters only when a queue is created.
inline bool operator==(const QueueSettings& one, const QueueSettings& other) {
  const auto parts = [](const QueueSettings& queue) {
    const auto& receiver = queue.receiver;
    return std::tie(receiver.queue, receiver.limits.messages, receiver.limits.messageSize,
                    receiver.mode, receiver.group, receiver.idleTimeout, queue.output, queue.digest,
                    queue.engine, queue.engineTimeout, queue.capture);
  };
  return parts(one) == parts(other);
}

/// Settings of the daemon as a whole.
struct DaemonSettings {
  std::optional<std::string> statsFile;
  std::optional<std::string> metricsFile;
  LogStyle logStyle = LogStyle::Text;  ///< fixed at the start; a reload does not change it
  std::chrono::seconds drainTimeout{0};
};

/// Everything that the daemon was asked to do; checked.
struct Settings {
  DaemonSettings daemon;
  std::vector<QueueSettings> queues;  ///< no two that clash
};

}  // namespace korvexd

#endif
