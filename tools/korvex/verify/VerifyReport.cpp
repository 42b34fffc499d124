#include "verify/VerifyReport.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "JsonLine.h"
#include "common/Printable.h"

namespace korvex::tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::array<StreamState, 4> kUsualStates = {StreamState::Complete, StreamState::Damaged,
                                                     StreamState::Partial, StreamState::Foreign};

std::string padded(std::string text) {
  constexpr std::size_t width = 10;
  return text.append(width - std::min(width, text.size()), ' ');
}

Json jsonOf(const StoredStream& stream) {
  Json problems = Json::array();
  for (const StreamProblem& problem : stream.problems) {
    problems.push_back({{"what", problem.what}, {"message", problem.text}});
  }
  return {{"path", common::unambiguous(stream.path)},
          {"state", nameOf(stream.state)},
          {"bytes", stream.bytes},
          {"note", stream.note},
          {"problems", problems}};
}

}  // namespace

std::uint64_t VerifyReport::count(StreamState state) const {
  return static_cast<std::uint64_t>(
      std::count_if(streams.begin(), streams.end(),
                    [&](const StoredStream& stream) { return stream.state == state; }));
}

Ending VerifyReport::ending() const {
  if (signal != 0) return endedBySignal(signal);
  const bool isGood = failures.empty() && count(StreamState::Damaged) == 0;
  return {static_cast<int>(isGood ? common::ExitCode::Success : common::ExitCode::Failed), 0};
}

std::string VerifyReport::summary() const {
  std::string text;
  for (const StreamState state : kUsualStates) {
    text += (text.empty() ? "" : ", ") + std::to_string(count(state)) + " " + nameOf(state);
  }
  const std::uint64_t unchecked = count(StreamState::Unchecked);
  if (unchecked > 0) text += ", " + std::to_string(unchecked) + " unchecked";
  return text + "; " + std::to_string(bytes) + " bytes in " + common::secondsText(seconds) + ", " +
         common::byteText(bytesPerSecond()) + "/s";
}

std::string VerifyReport::json() const {
  Json listed = Json::array();
  for (const StoredStream& stream : streams) listed.push_back(jsonOf(stream));
  Json errors = Json::array();
  for (const Failure& failure : failures) {
    errors.push_back({{"status", failure.status()}, {"message", failure.what()}});
  }
  Json object = {{"streams", listed}};
  for (const StreamState state : kUsualStates) object[nameOf(state)] = count(state);
  object["unchecked"] = count(StreamState::Unchecked);
  object["errors"] = errors;
  object["quick"] = isQuick;
  object["bytes"] = bytes;
  object["seconds"] = seconds;
  object["bytesPerSecond"] = bytesPerSecond();
  object["exitCode"] = ending().exitCode;
  return jsonLine(object);
}

std::string lineOf(const StoredStream& stream) {
  std::string text = padded(nameOf(stream.state)) + common::printable(stream.path);
  if (!stream.note.empty()) text += ": " + common::printable(stream.note);
  for (const StreamProblem& problem : stream.problems) {
    text += (&problem == &stream.problems.front() ? ": " : "; ") + std::string(problem.what) +
            ": " + common::printable(problem.text);
  }
  return text;
}

}  // namespace korvex::tool
