#include "status/DaemonStats.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <system_error>
#include <time.h>
#include <toml++/toml.h>
#include <unistd.h>
#include <vector>

#include "Failure.h"

namespace korvex::tool {
namespace {

using Json = nlohmann::json;

constexpr off_t kLargestFile = off_t{64} << 20;  // 64 MiB; a thousand queues take less than 1
constexpr double kNanosecond = 1e-9;

/// Closed on every way out.
class File {
 public:
  /// The path may lead to anything, and opening a device can already do something: it is looked at
  /// before it is opened.
  explicit File(const std::string& path) : descriptor_(::open(path.c_str(), O_PATH | O_CLOEXEC)) {
    if (descriptor_ < 0 || ::fstat(descriptor_, &status_) != 0) throwError(errno);
    if (!S_ISREG(status_.st_mode)) throwNoStats();
    const int found = descriptor_;
    descriptor_ = reopened(found);
    const int error = errno;
    ::close(found);
    if (descriptor_ < 0) throwError(error);
  }
  ~File() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  const struct stat& status() const { return status_; }

  std::string content() const {
    if (status_.st_size > kLargestFile) throwNoStats();
    std::string text(static_cast<std::size_t>(status_.st_size), '\0');
    const ssize_t size = ::read(descriptor_, text.data(), text.size());
    if (size < 0) throwError(errno);
    text.resize(static_cast<std::size_t>(size));
    return text;
  }

 private:
  static int reopened(int descriptor) {
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  }

  [[noreturn]] static void throwNoStats() { throw Failure(EINVAL, "not a daemon's statistics"); }

  [[noreturn]] static void throwError(int error) {
    throw Failure(static_cast<ov_status_t>(error), std::generic_category().message(error));
  }

  int descriptor_;
  struct stat status_ = {};
};

std::uint64_t numberOf(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

std::string textOf(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

std::time_t timeOf(const Json& object, const char* name) {
  std::tm parts = {};
  const std::string text = textOf(object, name);
  return ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts) == nullptr ? 0 : ::timegm(&parts);
}

const Json* memberOf(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_object() ? &*found : nullptr;
}

std::optional<StreamStats::End> endOf(const Json* json) {
  if (json == nullptr) return std::nullopt;
  return StreamStats::End{timeOf(*json, "at"), numberOf(*json, "bytes"), textOf(*json, "reason")};
}

StreamStats statsOf(const Json& json) {
  StreamStats stats;
  if (const Json* const open = memberOf(json, "open_stream")) {
    stats.open = {timeOf(*open, "since"), numberOf(*open, "bytes"), textOf(*open, "place")};
  }
  stats.lastComplete = endOf(memberOf(json, "last_complete"));
  stats.lastIncomplete = endOf(memberOf(json, "last_incomplete"));
  stats.complete = numberOf(json, "streams_complete");
  stats.incomplete = numberOf(json, "streams_incomplete");
  stats.bytes = numberOf(json, "bytes");
  return stats;
}

void addStats(const File& file, StatsByQueue& stats) {
  const Json json = Json::parse(file.content(), nullptr, false);
  const Json* const queues = json.is_object() ? memberOf(json, "queues") : nullptr;
  if (queues == nullptr) throw Failure(EINVAL, "not a daemon's statistics");
  const timespec written = file.status().st_mtim;
  for (const auto& [name, queue] : queues->items()) {
    if (!queue.is_object()) continue;
    stats[name] = statsOf(queue);
    stats[name].writtenAt =
        static_cast<double>(written.tv_sec) + static_cast<double>(written.tv_nsec) * kNanosecond;
  }
}

std::vector<std::string> wordsOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/cmdline", std::ios::binary);
  std::vector<std::string> words;
  for (std::string word; std::getline(file, word, '\0');) words.push_back(word);
  return words;
}

/// Of "--option VALUE" or "--option=VALUE".
std::string valueOf(const std::string& option, const std::vector<std::string>& words) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i].rfind(option, 0) != 0) continue;
    const std::string rest = words[i].substr(option.size());
    if (rest.empty() && i + 1 < words.size()) return words[i + 1];
    if (!rest.empty() && rest.front() == '=') return rest.substr(1);
  }
  return "";
}

/// The path as the daemon sees it, which may be in a container. Of another user's process that is
/// hidden.
std::string seenBy(pid_t daemon, const std::string& path) {
  const std::string process = "/proc/" + std::to_string(daemon);
  if (path.front() != '/') return process + "/cwd/" + path;
  const std::string seen = process + "/root" + path;
  return ::access(seen.c_str(), R_OK) == 0 ? seen : path;
}

/// Empty when the file names none or cannot be read.
std::string statsInConfig(const std::string& path) {
  try {
    return toml::parse(File(path).content())["daemon"]["stats"].value_or(std::string());
  } catch (const toml::parse_error&) {
  } catch (const Failure&) {
  }
  return "";
}

}  // namespace

std::string readStats(const std::string& path, StatsByQueue& stats) {
  try {
    addStats(File(path), stats);
    return "";
  } catch (const Failure& failure) {
    return failure.what();
  }
}

std::string statsPathOf(pid_t daemon) {
  const std::vector<std::string> words = wordsOf(daemon);
  std::string path = valueOf("--stats", words);
  const std::string config = valueOf("--config", words);
  if (path.empty() && !config.empty()) path = statsInConfig(seenBy(daemon, config));
  return path.empty() ? "" : seenBy(daemon, path);
}

bool isProcessOf(pid_t process, uid_t user) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    uid_t found = 0;
    if (std::sscanf(line.c_str(), "Uid: %u", &found) == 1) return found == user;
  }
  return false;
}

}  // namespace korvex::tool
