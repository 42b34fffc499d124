#include "Printable.h"

#include <array>
#include <cstdio>

namespace korvex::tool {
namespace {

constexpr unsigned char kFirstPrintable = 0x20;
constexpr unsigned char kDelete = 0x7f;
constexpr double kUnitStep = 1000;
constexpr std::array<const char*, 6> kUnits = {"B", "kB", "MB", "GB", "TB", "PB"};
constexpr long kMinute = 60;
constexpr long kHour = 3600;

template <typename... Values>
std::string formatted(const char* format, Values... values) {
  std::array<char, 64> text = {};
  std::snprintf(text.data(), text.size(), format, values...);
  return text.data();
}

}  // namespace

std::string printable(std::string_view untrusted) {
  std::string text;
  for (const char character : untrusted) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < kFirstPrintable || byte == kDelete) {
      text += formatted("\\x%02x", static_cast<unsigned>(byte));
    } else {
      text += character;
    }
  }
  return text;
}

std::string byteText(double bytes) {
  std::size_t unit = 0;
  // What would be rounded up to a thousand belongs to the next unit.
  while (bytes >= (unit == 0 ? kUnitStep : kUnitStep - 0.05) && unit + 1 < kUnits.size()) {
    bytes /= kUnitStep;
    ++unit;
  }
  return formatted(unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
}

std::string timeText(std::chrono::seconds time) {
  const long seconds = time.count();
  const long minutes = seconds / kMinute;
  if (seconds < kHour) return formatted("%ld:%02ld", minutes, seconds % kMinute);
  return formatted("%ld:%02ld:%02ld", seconds / kHour, minutes % kMinute, seconds % kMinute);
}

}  // namespace korvex::tool
