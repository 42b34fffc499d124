#ifndef KORVEXD_CONFIG_SETTINGS_H
#define KORVEXD_CONFIG_SETTINGS_H

#include <korvex/receiver/Receiver.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace korvexd {

constexpr std::chrono::seconds kDefaultEngineTimeout{3600};

/// How one queue is served; checked.
struct QueueSettings {
  korvex::receiver::Receiver::Settings receiver;  ///< its queue without leading slash
  std::optional<std::string> output;
  std::vector<std::string> engine;  ///< the words of its command; without it and an output folder
                                    ///< the data is discarded
  std::chrono::seconds engineTimeout = kDefaultEngineTimeout;
  std::optional<std::string> capture;
};

}  // namespace korvexd

#endif
