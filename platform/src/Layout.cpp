#include "Layout.h"

#include <chrono>
#include <ctime>
#include <spdlog/fmt/fmt.h>
#include <unistd.h>

namespace qmx {
namespace {

const char* nameOf(Level level) {
  switch (level) {
    case Level::Trace:
      return "TRACE";
    case Level::Info:
      return "INFO";
    case Level::Auth:
      return "AUTH";
    case Level::Warning:
      return "WARNING";
    case Level::Error:
      return "ERROR";
  }
  return "UNKNOWN";
}

/// ISO 8601 with milliseconds and the offset from UTC: 2031-04-05T06:07:08.009+02:00.
std::string timeStamp(std::chrono::system_clock::time_point now) {
  const auto sinceEpoch = now.time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
  const auto rest = std::chrono::floor<std::chrono::milliseconds>(sinceEpoch - seconds);
  const std::time_t time = seconds.count();
  std::tm local{};
  ::localtime_r(&time, &local);
  const long offset = local.tm_gmtoff / 60;
  const long distance = offset < 0 ? -offset : offset;
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}{}{:02}:{:02}", local.tm_year + 1900,
                     local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                     rest.count(), offset < 0 ? '-' : '+', distance / 60, distance % 60);
}

/// Texts quote what other processes sent. Escaping line ends and terminal escapes keeps them from
/// forging a second line; escaping the backslash too makes the text recoverable exactly.
std::string escaped(const char* text) {
  std::string result;
  for (; *text != '\0'; ++text) {
    const auto byte = static_cast<unsigned char>(*text);
    if (byte == '\\') {
      result += "\\\\";
    } else if (byte == '\n') {
      result += "\\n";
    } else if (byte == '\r') {
      result += "\\r";
    } else if (byte == '\t') {
      result += "\\t";
    } else if (byte < 0x20 || byte == 0x7f) {
      result += fmt::format("\\x{:02x}", byte);
    } else {
      result += *text;
    }
  }
  return result;
}

}  // namespace

std::string layOut(const Line& line) {
  // Not cached: the process id changes in a forked child.
  return fmt::format("{} {} pid={} code={} {}", timeStamp(std::chrono::system_clock::now()),
                     nameOf(line.level), ::getpid(), line.code, escaped(line.text));
}

std::string layOutBriefly(const Line& line) {
  return fmt::format("{} code={} {}", nameOf(line.level), line.code, escaped(line.text));
}

}  // namespace qmx
