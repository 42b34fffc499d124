#include "inspect/InspectSummary.h"

#include <algorithm>
#include <korvex/RecordType.h>
#include <nlohmann/json.hpp>
#include <numeric>

#include "JsonLine.h"
#include "common/Printable.h"

namespace korvex::tool {
namespace {

using Json = nlohmann::ordered_json;
using OptionalNumber = std::optional<std::uint64_t>;

constexpr std::array<const char*, 6> kTypeNames = {"open",  "segment data", "segment end",
                                                   "close", "stop",         "unknown"};

std::size_t placeOf(std::uint32_t type) noexcept {
  return std::min<std::size_t>(type, kTypeNames.size() - 1);
}

std::string counted(std::uint64_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string rangeText(std::uint64_t first, std::uint64_t last) {
  return first == last ? std::to_string(first)
                       : std::to_string(first) + " to " + std::to_string(last);
}

Json jsonOrNull(const OptionalNumber& number) { return number ? Json(*number) : Json(nullptr); }

}  // namespace

const char* recordTypeName(std::uint32_t type) noexcept { return kTypeNames[placeOf(type)]; }

void InspectSummary::addFile(const CaptureFile& file) {
  ++files_;
  const bool goesOn = file.number && !captures_.empty() && captures_.back().lastBatch &&
                      captures_.back().name == file.capture;
  if (!goesOn) captures_.push_back({file.capture, file.number, file.number, {}, {}, {}});
  if (!file.number) return;
  Capture& capture = captures_.back();
  // In order, so the difference is never negative; a file may be given twice.
  if (*file.number - *capture.lastBatch > 1) {
    capture.missing.push_back({*capture.lastBatch + 1, *file.number - 1});
  }
  capture.lastBatch = file.number;
}

void InspectSummary::addBatch(bool isDamaged) {
  ++batches_;
  if (isDamaged) ++damaged_;
}

void InspectSummary::addRecord(const qmx_shm_message_t& header) {
  ++recordsOfType_[placeOf(header.type)];
  dataBytes_ += header.len;
  Capture& capture = captures_.back();
  if (!capture.firstSequence) capture.firstSequence = header.sequence;
  capture.lastSequence = header.sequence;
}

std::uint64_t InspectSummary::records() const {
  return std::accumulate(recordsOfType_.begin(), recordsOfType_.end(), std::uint64_t{0});
}

std::string InspectSummary::text() const {
  std::string text = counted(files_, "file", "files") + ", " +
                     counted(batches_, "batch", "batches") + " (" + std::to_string(damaged_) +
                     " damaged), " + counted(records(), "record", "records") + ", " +
                     counted(dataBytes_, "data byte", "data bytes") + ", " +
                     counted(recordsOfType_[kTypeOpen], "stream", "streams") + "\nrecords: ";
  for (std::size_t i = 0; i < kTypes; ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(recordsOfType_[i]) + " " + kTypeNames[i];
  }
  text += "\n";
  for (const Capture& capture : captures_) text += lineOf(capture);
  return text;
}

std::string InspectSummary::lineOf(const Capture& capture) {
  std::string text = common::printable(capture.name) + ": ";
  if (capture.firstBatch) text += "batches " + rangeText(*capture.firstBatch, *capture.lastBatch);
  for (const Gap& gap : capture.missing) {
    text +=
        (&gap == &capture.missing.front() ? " without " : ", ") + rangeText(gap.first, gap.last);
  }
  if (capture.firstBatch) text += "; ";
  text += capture.firstSequence ? "first sequence " + std::to_string(*capture.firstSequence) +
                                      ", last " + std::to_string(*capture.lastSequence)
                                : "no record";
  return text + "\n";
}

void InspectSummary::addTo(Json& object) const {
  object["files"] = files_;
  object["batches"] = batches_;
  object["damaged"] = damaged_;
  object["records"] = records();
  Json& types = object["recordsByType"] = Json::object();
  for (std::size_t i = 0; i < kTypes; ++i) types[kTypeNames[i]] = recordsOfType_[i];
  object["dataBytes"] = dataBytes_;
  object["streams"] = recordsOfType_[kTypeOpen];
  Json& captures = object["captures"] = Json::array();
  for (const Capture& capture : captures_) captures.push_back(jsonOf(capture));
}

Json InspectSummary::jsonOf(const Capture& capture) {
  Json missing = Json::array();
  for (const Gap& gap : capture.missing) {
    missing.push_back({{"first", gap.first}, {"last", gap.last}});
  }
  return {{"name", common::unambiguous(capture.name)},
          {"firstBatch", jsonOrNull(capture.firstBatch)},
          {"lastBatch", jsonOrNull(capture.lastBatch)},
          {"missing", missing},
          {"firstSequence", jsonOrNull(capture.firstSequence)},
          {"lastSequence", jsonOrNull(capture.lastSequence)}};
}

}  // namespace korvex::tool
