#include "korvexd/report/StatsFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "korvexd/os/File.h"
#include "common/QueueName.h"

namespace korvexd {
namespace {

using Json = nlohmann::ordered_json;

constexpr mode_t kFileMode = 0644;
constexpr int kIndent = 2;

Json jsonOf(const Stats& stats) {
  Json json = Json::object();
  for (std::size_t i = 0; i < kCounts; ++i) {
    const auto count = static_cast<Count>(i);
    json[nameOf(count)] = stats.get(count);
  }
  return json;
}

void addTo(Stats& total, const Stats& stats) {
  for (std::size_t i = 0; i < kCounts; ++i) {
    const auto count = static_cast<Count>(i);
    total.add(count, stats.get(count));
  }
}

/// Anything else, /dev/stdout for example, would be swapped for a file.
void refuseOtherThanFile(const std::string& path) {
  struct stat found = {};
  if (::lstat(path.c_str(), &found) != 0 || S_ISREG(found.st_mode)) return;
  throw std::runtime_error("writing statistics to " + path +
                           ": found something else, expected a file");
}

}  // namespace

StatsFile::StatsFile(std::string path, std::vector<std::pair<std::string, const Stats*>> queues)
    : path_(std::move(path)), queues_(std::move(queues)) {}

void StatsFile::update() {
  std::string now = text();
  if (now == written_) return;
  refuseOtherThanFile(path_);
  replaceFile(AT_FDCWD, path_, now, kFileMode, "writing statistics to " + path_);
  written_ = std::move(now);
}

std::string StatsFile::text() const {
  Stats total;
  Json queues = Json::object();
  for (const auto& [name, stats] : queues_) {
    addTo(total, *stats);
    queues[jsonNameOf(name)] = jsonOf(*stats);
  }
  const Json json = {{"total", jsonOf(total)}, {"queues", queues}};
  return json.dump(kIndent) + "\n";
}

}  // namespace korvexd
