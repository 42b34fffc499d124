#include "status/DaemonStats.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>
#include <system_error>
#include <vector>

#include "Failure.h"

namespace korvex::tool {
namespace {

using Json = nlohmann::json;

constexpr off_t kLargestFile = off_t{64} << 20;  // a thousand queues have less than one
constexpr double kNanosecond = 1e-9;
constexpr std::string_view kOption = "--stats";

/// Closed on every way out.
class File {
 public:
  /// Non-blocking: a pipe must not hold the caller up.
  explicit File(const std::string& path)
      : descriptor_(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY)) {
    if (descriptor_ < 0 || ::fstat(descriptor_, &status_) != 0) throwError(errno);
  }
  ~File() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  const struct stat& status() const { return status_; }

  std::string content() const {
    if (!S_ISREG(status_.st_mode) || status_.st_size > kLargestFile) {
      throw Failure(EINVAL, "no daemon's statistics");
    }
    std::string text(static_cast<std::size_t>(status_.st_size), '\0');
    const ssize_t size = ::read(descriptor_, text.data(), text.size());
    if (size < 0) throwError(errno);
    text.resize(static_cast<std::size_t>(size));
    return text;
  }

 private:
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
  if (queues == nullptr) throw Failure(EINVAL, "no daemon's statistics");
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

/// "--stats FILE" or "--stats=FILE".
std::string statsOption(const std::vector<std::string>& words) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i].rfind(kOption, 0) != 0) continue;
    const std::string rest = words[i].substr(kOption.size());
    if (rest.empty() && i + 1 < words.size()) return words[i + 1];
    if (!rest.empty() && rest.front() == '=') return rest.substr(1);
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
  const std::string path = statsOption(wordsOf(daemon));
  if (path.empty()) return "";
  const std::string process = "/proc/" + std::to_string(daemon);
  // As the daemon sees it, which may be in a container. Of another user's process that is hidden.
  const std::string seen =
      path.front() == '/' ? process + "/root" + path : process + "/cwd/" + path;
  return ::access(seen.c_str(), R_OK) == 0 ? seen : path;
}

}  // namespace korvex::tool
