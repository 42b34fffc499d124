#include "korvexd/report/StatsFile.h"

#include <array>
#include <nlohmann/json.hpp>
#include <utility>

#include "common/Printable.h"
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

Json jsonOf(const std::optional<StreamHistory::End>& end) {
  if (!end) return nullptr;
  Json json = {{"at", common::utcText(end->at)}, {"bytes", end->bytes}};
  if (!end->reason.empty()) json["reason"] = common::printable(end->reason);
  return json;
}

Json openStreamOf(const StreamHistory& history, const receiver::Counters& counters) {
  if (!history.open) return nullptr;
  return {{"since", common::utcText(history.open->since)},
          {"bytes", history.openBytes(counters)},
          {"place", common::unambiguous(history.open->place)}};
}

void addHistory(Json& json, const QueueStats& stats) {
  const StreamHistory history = stats.log == nullptr ? StreamHistory() : stats.log->history();
  json["open_stream"] = openStreamOf(history, *stats.counters);
  json["last_complete"] = jsonOf(history.lastComplete);
  json["last_incomplete"] = jsonOf(history.lastIncomplete);
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
    Json& json = queues[common::jsonNameOf(stats.queue)] = jsonOf(own);
    addHistory(json, stats);
  }
  const Json json = {{"total", jsonOf(total)}, {"queues", queues}};
  return json.dump(kIndent) + "\n";
}

}  // namespace korvexd
