#include "korvexd/Utc.h"

namespace korvexd {
namespace {

constexpr std::size_t kLongestTime = 64;

std::string formatted(std::time_t time, const char* format) {
  std::tm parts = {};
  ::gmtime_r(&time, &parts);
  char text[kLongestTime] = {};
  return std::string(text, std::strftime(text, sizeof text, format, &parts));
}

}  // namespace

std::string utcForFileName(std::time_t time) { return formatted(time, "%Y%m%dT%H%M%SZ"); }

std::string utcText(std::time_t time) { return formatted(time, "%Y-%m-%dT%H:%M:%SZ"); }

}  // namespace korvexd
