#include "status/StatusReport.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <grp.h>
#include <nlohmann/json.hpp>
#include <pwd.h>
#include <sys/stat.h>
#include <system_error>

#include "JsonLine.h"
#include "common/ExitCode.h"
#include "common/Printable.h"
#include "common/QueueName.h"

namespace korvex::tool {
namespace {

using Condition = receiver::QueueStatus::Condition;
using Json = nlohmann::ordered_json;
using Maker = receiver::HalfMadeQueue::Maker;

/// A daemon that runs has queues, so this one has ended, or could not start.
constexpr const char* kNothing =
    "no queues in shared memory\n"
    "no daemon serves any here: its log says why, for example journalctl -u korvexd\n";

constexpr mode_t kPermissions = 07777;
std::string octalText(mode_t mode) {
  char text[8] = {};
  std::snprintf(text, sizeof text, "%04o", mode & kPermissions);
  return text;
}

std::string userText(uid_t user) {
  const passwd* const found = ::getpwuid(user);
  return found == nullptr ? std::to_string(user) : common::printable(found->pw_name);
}

std::string groupText(gid_t group) {
  const ::group* const found = ::getgrgid(group);
  return found == nullptr ? std::to_string(group) : common::printable(found->gr_name);
}

const char* nameOf(PairState::Service service) {
  switch (service) {
    case PairState::Service::Served:
      return "served";
    case PairState::Service::Abandoned:
      return "abandoned";
    case PairState::Service::Unknown:
      break;
  }
  return "unknown";
}

const char* nameOf(const QueueState& queue) {
  switch (queue.condition) {
    case Condition::Unreachable:
      return queue.exists() ? "unreachable" : "absent";
    case Condition::Unfinished:
      return "unfinished";
    case Condition::Damaged:
      return "damaged";
    case Condition::Busy:
      return "busy";
    case Condition::Sound:
      break;
  }
  return "sound";
}

const char* nameOf(QueueState::Owner owner) {
  switch (owner) {
    case QueueState::Owner::Nobody:
      return "nobody";
    case QueueState::Owner::Alive:
      return "alive";
    case QueueState::Owner::Dead:
      return "dead";
    case QueueState::Owner::Unknown:
      break;
  }
  return "unknown";
}

const char* nameOf(Maker maker) {
  switch (maker) {
    case Maker::Dead:
      return "dead";
    case Maker::Alive:
      return "alive";
    case Maker::Unknown:
      break;
  }
  return "unknown";
}

std::string serverText(const PairState& pair) {
  switch (pair.service) {
    case PairState::Service::Served:
      return pair.server.text();
    case PairState::Service::Abandoned:
      return "nobody";
    case PairState::Service::Unknown:
      break;
  }
  return "nobody seen from here";
}

std::string lockText(const QueueState& queue) {
  if (queue.condition == Condition::Busy) return "held";
  if (queue.condition != Condition::Sound) return "-";
  if (!queue.isLocked) return "free";
  const std::string state = queue.lockOwner == QueueState::Owner::Alive
                                ? ""
                                : std::string(", ") + nameOf(queue.lockOwner);
  return "held by " + queue.lockedBy.text() + state;
}

std::string lockText(const PairState& pair) {
  const std::string ofReplies = lockText(pair.replies);
  if (ofReplies.rfind("held", 0) != 0) return lockText(pair.batches);
  return lockText(pair.batches) + "; replies: " + ofReplies;
}

std::vector<std::string> titles() {
  return {"QUEUE", "STATE", "SERVED BY", "WAITING", "LIMITS", "LOCK", "OWNER", "MODE"};
}

std::vector<std::string> rowOf(const PairState& pair) {
  const QueueState& queue = pair.batches;
  const bool isSound = queue.condition == Condition::Sound;
  const QueueState& owned = queue.exists() ? queue : pair.replies;
  return {common::printable(pair.name),
          nameOf(pair.service),
          serverText(pair),
          isSound ? std::to_string(queue.messages) + " (" +
                        common::byteText(static_cast<double>(queue.bytes)) + ")"
                  : nameOf(queue),
          isSound ? std::to_string(queue.limits.messages) + " of " +
                        std::to_string(queue.limits.messageSize) + " B"
                  : "-",
          lockText(pair),
          userText(owned.object.user) + ":" + groupText(owned.object.group),
          octalText(owned.object.mode)};
}

std::string timeText(std::time_t at, std::time_t now) {
  const auto age = std::chrono::seconds(std::max(now - at, std::time_t{0}));
  return common::utcText(at) + " (" + common::timeText(age) + " ago)";
}

std::string bytesText(std::uint64_t bytes) { return common::byteText(static_cast<double>(bytes)); }

std::string endText(const std::optional<StreamStats::End>& end, std::time_t now) {
  if (!end) return "none yet";
  const std::string reason = end->reason.empty() ? "" : ": " + common::printable(end->reason);
  return timeText(end->at, now) + ", " + bytesText(end->bytes) + reason;
}

std::vector<std::string> streamLines(const StatusReport::Pair& pair, std::time_t now) {
  if (!pair.streams) return {};
  const StreamStats& streams = *pair.streams;
  std::vector<std::string> lines;
  if (streams.open) {
    const std::string& place = streams.open->place;
    lines.push_back("stream open since " + timeText(streams.open->since, now) + ", " +
                    bytesText(streams.open->bytes) + ", " + common::byteText(pair.bytesPerSecond) +
                    "/s" + (place.empty() ? "" : ", " + common::printable(place)));
  } else {
    lines.emplace_back("no stream is open");
  }
  lines.push_back("last complete stream: " + endText(streams.lastComplete, now));
  if (streams.incomplete > 0) {
    lines.push_back("failed streams: " + std::to_string(streams.incomplete) + ", the last " +
                    endText(streams.lastIncomplete, now));
  }
  return lines;
}

std::string linesOf(const StatusReport::Pair& pair, std::time_t now) {
  const std::string name = common::printable(pair.state.name) + ": ";
  std::string text;
  for (const std::string& line : streamLines(pair, now))
    text.append(name).append(line).append("\n");
  for (const std::string& problem : pair.state.problems()) {
    text.append(name).append("! ").append(problem).append("\n");
  }
  return text;
}

std::string lineOf(const receiver::HalfMadeQueue& queue) {
  const std::string name = common::printable(queue.name) + ": half made by ";
  switch (queue.maker) {
    case Maker::Dead:
      return name + "process " + std::to_string(queue.process) +
             ", which is dead; korvex clean removes it\n";
    case Maker::Alive:
      return name + runnerOf(queue.process).text() + ", which is starting\n";
    case Maker::Unknown:
      break;
  }
  return name + "a process that cannot be seen from here\n";
}

Json jsonOf(const Runner& runner) {
  return {{"id", runner.id}, {"program", common::unambiguous(runner.program)}};
}

Json lockJson(const QueueState& queue) {
  Json json = {{"held", queue.isLocked}, {"owner", nullptr}};
  if (!queue.isLocked) return json;
  json["owner"] = jsonOf(queue.lockedBy);
  json["owner"]["state"] = nameOf(queue.lockOwner);
  return json;
}

Json jsonOf(const QueueState& queue) {
  Json json = {{"name", common::jsonNameOf(queue.name)}, {"condition", nameOf(queue)}};
  json["error"] = queue.systemError == 0 ? "" : std::generic_category().message(queue.systemError);
  if (!queue.exists()) return json;
  json["kind"] = kindText(queue.object.mode);
  json["uid"] = queue.object.user;
  json["gid"] = queue.object.group;
  json["mode"] = octalText(queue.object.mode);
  json["size"] = queue.object.size;
  if (queue.condition != Condition::Sound) return json;
  json["messages"] = queue.messages;
  json["bytes"] = queue.bytes;
  json["maxMessages"] = queue.limits.messages;
  json["maxMessageSize"] = queue.limits.messageSize;
  json["lock"] = lockJson(queue);
  return json;
}

Json jsonOf(const std::optional<StreamStats::End>& end) {
  if (!end) return nullptr;
  return {{"at", common::utcText(end->at)}, {"bytes", end->bytes}, {"reason", end->reason}};
}

Json streamsJson(const StatusReport::Pair& pair) {
  if (!pair.streams) return nullptr;
  const StreamStats& streams = *pair.streams;
  Json json = {{"open", nullptr},
               {"lastComplete", jsonOf(streams.lastComplete)},
               {"lastIncomplete", jsonOf(streams.lastIncomplete)},
               {"complete", streams.complete},
               {"incomplete", streams.incomplete}};
  if (streams.open) {
    json["open"] = {{"since", common::utcText(streams.open->since)},
                    {"bytes", streams.open->bytes},
                    {"bytesPerSecond", pair.bytesPerSecond},
                    {"place", streams.open->place}};
  }
  return json;
}

Json jsonOf(const StatusReport::Pair& pair) {
  const bool isServed = pair.state.service == PairState::Service::Served;
  return {{"name", common::jsonNameOf(pair.state.name)},
          {"state", nameOf(pair.state.service)},
          {"servedBy", isServed ? jsonOf(pair.state.server) : Json()},
          {"batches", jsonOf(pair.state.batches)},
          {"replies", jsonOf(pair.state.replies)},
          {"problems", pair.state.problems()},
          {"streams", streamsJson(pair)}};
}

}  // namespace

std::string tableOf(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths(rows.front().size());
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], common::columnsOf(row[i]));
    }
  }
  std::string text;
  for (const auto& row : rows) {
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      text += row[i] + std::string(widths[i] - common::columnsOf(row[i]) + 2, ' ');
    }
    text += row.back() + "\n";
  }
  return text;
}

Ending StatusReport::ending() const {
  return {codeOf(hasFailed ? common::ExitCode::Failed : common::ExitCode::Success), 0};
}

std::string StatusReport::text() const {
  if (pairs.empty() && halfMade.empty()) return hasFailed ? "" : kNothing;
  std::vector<std::vector<std::string>> rows = {titles()};
  std::string lines;
  for (const Pair& pair : pairs) {
    rows.push_back(rowOf(pair.state));
    lines += linesOf(pair, now);
  }
  for (const receiver::HalfMadeQueue& queue : halfMade) lines += lineOf(queue);
  return (pairs.empty() ? "" : tableOf(rows)) + lines;
}

std::string StatusReport::json() const {
  Json object = {{"at", common::utcText(now)}, {"queues", Json::array()}};
  for (const Pair& pair : pairs) object["queues"].push_back(jsonOf(pair));
  object["halfMade"] = Json::array();
  for (const receiver::HalfMadeQueue& queue : halfMade) {
    object["halfMade"].push_back({{"name", common::jsonNameOf(queue.name)},
                                  {"process", queue.process},
                                  {"maker", nameOf(queue.maker)}});
  }
  object["errors"] = errors;
  object["exitCode"] = ending().exitCode;
  return jsonLine(object);
}

}  // namespace korvex::tool
