#ifndef KORVEXD_CONFIG_KEYS_H
#define KORVEXD_CONFIG_KEYS_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "korvexd/config/Settings.h"
#include "korvexd/config/Value.h"

namespace korvexd {

constexpr std::int64_t kLongestTime = std::int64_t{7} * 24 * 3600;  ///< of any kind, in seconds

// Values that the keys "digest" and "log-format" have by default.
constexpr const char* kSha256Name = "sha256";
constexpr const char* kTextFormat = "text";

/// A value that a key cannot have. The text says what it expects.
class WrongValue : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/// One key of the configuration. The command line's option has the same name, with two dashes in
/// front.
template <typename Target>
struct Key {
  const char* name;
  std::optional<Value> standard;  ///< the default; none: not set

  /// Stores the value in the settings. Throws WrongValue.
  void (*apply)(Target& target, const Value& value);
};

/// The keys of each queue, in the order in which people read them.
const std::vector<Key<QueueSettings>>& queueKeys();

/// The keys of the daemon itself.
const std::vector<Key<DaemonSettings>>& daemonKeys();

/// The keys that say where the data goes. A queue has one of them.
const std::vector<std::string>& sinkKeys();

template <typename Target>
const Key<Target>* findKey(const std::vector<Key<Target>>& keys, const std::string& name) {
  for (const Key<Target>& key : keys)
    if (key.name == name) return &key;
  return nullptr;
}

}  // namespace korvexd

#endif
