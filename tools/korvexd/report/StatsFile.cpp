#include "korvexd/report/StatsFile.h"

#include <array>
#include <nlohmann/json.hpp>
#include <utility>

#include "common/QueueName.h"

namespace korvexd {
namespace {

namespace common = korvex::common;

using Json = nlohmann::ordered_json;

constexpr int kIndent = 2;

/// What the file says of one queue, or of all.
struct Sum {
  std::array<std::uint64_t, receiver::kCounts> counts = {};
  std::uint64_t captureFailures = 0;
};

Json jsonOf(const Sum& sum) {
  Json json = Json::object();
  for (const receiver::CountName& name : receiver::kCountNames) {
    json[name.name] = sum.counts[static_cast<std::size_t>(name.count)];
  }
  json["capture_failures"] = sum.captureFailures;
  return json;
}

void add(Sum& sum, const QueueStats& stats) {
  for (const receiver::CountName& name : receiver::kCountNames) {
    sum.counts[static_cast<std::size_t>(name.count)] += stats.counters->get(name.count);
  }
  if (stats.log != nullptr) sum.captureFailures += stats.log->counts().captureFailures;
}

}  // namespace

StatsFile::StatsFile(std::string path, std::vector<QueueStats> queues)
    : file_(std::move(path), "statistics"), queues_(std::move(queues)) {}

std::string StatsFile::text() const {
  Sum total;
  Json queues = Json::object();
  for (const QueueStats& stats : queues_) {
    Sum own;
    add(own, stats);
    add(total, stats);
    queues[common::jsonNameOf(stats.queue)] = jsonOf(own);
  }
  const Json json = {{"total", jsonOf(total)}, {"queues", queues}};
  return json.dump(kIndent) + "\n";
}

}  // namespace korvexd
