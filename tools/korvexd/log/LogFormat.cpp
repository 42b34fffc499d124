#include "korvexd/log/LogFormat.h"

#include <chrono>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <spdlog/fmt/chrono.h>
#include <spdlog/pattern_formatter.h>
#include <sys/stat.h>

#include "common/Printable.h"
#include "common/QueueName.h"

namespace korvexd {
namespace {

namespace common = korvex::common;

/// As syslog numbers them, for the journal.
const char* priorityOf(spdlog::level::level_enum level) noexcept {
  switch (level) {
    case spdlog::level::trace:
    case spdlog::level::debug:
      return "<7>";
    case spdlog::level::warn:
      return "<4>";
    case spdlog::level::err:
      return "<3>";
    case spdlog::level::critical:
      return "<2>";
    case spdlog::level::info:
    case spdlog::level::off:
    case spdlog::level::n_levels:
      break;
  }
  return "<6>";
}

std::string textLine(const LogEntry& entry, spdlog::log_clock::time_point time) {
  const std::string text = common::printable(entry.fullText());
  spdlog::details::log_msg message("korvexd", entry.level, text);
  message.time = time;
  spdlog::memory_buf_t line;
  spdlog::pattern_formatter().format(message, line);
  return {line.data(), line.size()};
}

std::string timeText(spdlog::log_clock::time_point time) {
  using std::chrono::milliseconds;
  const auto sinceEpoch = std::chrono::duration_cast<milliseconds>(time.time_since_epoch());
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(spdlog::log_clock::to_time_t(time)),
                     sinceEpoch.count() % 1000);
}

/// A queue has one name, wherever it stands.
std::string jsonText(const std::string& field, const std::string& text) {
  return field == "queue" ? common::jsonNameOf(text) : common::unambiguous(text);
}

std::string jsonLine(const LogEntry& entry, spdlog::log_clock::time_point time) {
  const auto level = spdlog::level::to_string_view(entry.level);
  nlohmann::ordered_json json = {{"time", timeText(time)},
                                 {"level", std::string(level.data(), level.size())},
                                 {"event", nameOf(entry.event)}};
  if (!entry.queue.empty()) json["queue"] = common::jsonNameOf(entry.queue);
  for (const auto& [name, value] : entry.fields) {
    if (const auto* number = std::get_if<std::uint64_t>(&value)) {
      json[name] = *number;
    } else {
      json[name] = jsonText(name, std::get<std::string>(value));
    }
  }
  json["message"] = common::printable(entry.text);
  return json.dump() + "\n";
}

}  // namespace

LogReader readerOf(int descriptor) {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat file = {};
  if (stream == nullptr || ::fstat(descriptor, &file) != 0) return LogReader::Anyone;
  const std::string own = std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino);
  return stream == own ? LogReader::Journal : LogReader::Anyone;
}

std::string LogFormat::line(const LogEntry& entry, spdlog::log_clock::time_point time) const {
  const bool isForJournal = reader_ == LogReader::Journal;
  const std::string priority = isForJournal ? priorityOf(entry.level) : "";
  if (style_ == LogStyle::Json) return priority + jsonLine(entry, time);
  if (isForJournal) return priority + common::printable(entry.fullText()) + "\n";
  return textLine(entry, time);
}

}  // namespace korvexd
