#include "korvexd/sink/Manifest.h"

#include <nlohmann/json.hpp>

#include "common/Printable.h"
#include "common/QueueName.h"
#include "common/StoredNames.h"

namespace korvexd {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kIndent = 2;

}  // namespace

std::string manifestOf(const receiver::StreamSummary& summary, const std::string& sha256,
                       const std::string& reason) {
  const bool isComplete = summary.ending == receiver::Ending::Complete;
  Json json = {{"format", korvex::common::kManifestFormat},
               {"queue", korvex::common::jsonNameOf(summary.queue)},
               {"state", isComplete ? "complete" : "incomplete"},
               {"reason", reason},
               {"bytes", summary.bytes},
               {"segments", summary.segments},
               {"records", summary.records}};
  json["digest"] = sha256.empty() ? "xxh128" : "sha256";
  if (!sha256.empty()) json["sha256"] = sha256;
  json["xxh128"] = summary.xxh128;
  json["opened"] = korvex::common::utcText(summary.opened);
  json["closed"] = korvex::common::utcText(summary.closed);
  // Whatever a reason quotes, the manifest stays valid JSON.
  return json.dump(kIndent, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace korvexd
