#include "common/Printable.h"

#include <array>
#include <cstdio>
#include <locale.h>
#include <wchar.h>

namespace korvex::common {
namespace {

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

unsigned char byteAt(std::string_view text, std::size_t offset) {
  return static_cast<unsigned char>(text[offset]);
}

/// Overlong forms, surrogates, and code points beyond U+10FFFF.
bool isNoCharacter(unsigned char first, unsigned char second) {
  return (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
         (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f);
}

/// Bytes of the UTF-8 character that comes first; 0 when none does.
std::size_t characterSize(std::string_view untrusted) {
  const unsigned char first = byteAt(untrusted, 0);
  if (first < 0x80) return 1;
  const std::size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || untrusted.size() < size) return 0;
  for (std::size_t i = 1; i < size; ++i) {
    if ((byteAt(untrusted, i) & 0xc0) != 0x80) return 0;
  }
  return isNoCharacter(first, byteAt(untrusted, 1)) ? 0 : size;
}

/// There are two ranges of them; terminals obey both.
bool isControl(std::string_view character) {
  const unsigned char first = byteAt(character, 0);
  if (character.size() == 1) return first < 0x20 || first == 0x7f;
  return first == 0xc2 && byteAt(character, 1) < 0xa0;
}

/// Of a character that is in one piece.
wchar_t codePointOf(std::string_view character) {
  constexpr std::array<unsigned, 5> kBitsOfFirst = {0, 0x7f, 0x1f, 0x0f, 0x07};
  unsigned code = byteAt(character, 0) & kBitsOfFirst[character.size()];
  for (std::size_t i = 1; i < character.size(); ++i) {
    code = code << 6 | (byteAt(character, i) & 0x3fU);
  }
  return static_cast<wchar_t>(code);
}

/// As the system's tables have it, whatever the locale of the process.
std::size_t columnsOfCharacter(std::string_view character) {
  static const locale_t tables = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (tables == nullptr) return 1;
  const locale_t before = ::uselocale(tables);
  const int columns = ::wcwidth(codePointOf(character));
  ::uselocale(before);
  return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

/// Takes the first character off the text and tells its columns. A byte that belongs to none has
/// one.
std::size_t takeCharacter(std::string_view& text) {
  const std::size_t size = characterSize(text);
  const std::size_t columns = size == 0 ? 1 : columnsOfCharacter(text.substr(0, size));
  text.remove_prefix(size == 0 ? 1 : size);
  return columns;
}

}  // namespace

std::string printable(std::string_view untrusted) {
  std::string text;
  while (!untrusted.empty()) {
    const std::size_t size = characterSize(untrusted);
    if (size != 0 && !isControl(untrusted.substr(0, size))) {
      text += untrusted.substr(0, size);
      untrusted.remove_prefix(size);
    } else {
      text += formatted("\\x%02x", static_cast<unsigned>(byteAt(untrusted, 0)));
      untrusted.remove_prefix(1);
    }
  }
  return text;
}

std::string unambiguous(std::string_view untrusted) {
  std::string text;
  for (;;) {
    const std::size_t backslash = untrusted.find('\\');
    text += printable(untrusted.substr(0, backslash));
    if (backslash == std::string_view::npos) return text;
    text += "\\x5c";
    untrusted.remove_prefix(backslash + 1);
  }
}

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) columns += takeCharacter(text);
  return columns;
}

std::string_view cutToColumns(std::string_view text, std::size_t columns) {
  std::string_view rest = text;
  while (!rest.empty()) {
    const std::size_t at = text.size() - rest.size();
    const std::size_t next = takeCharacter(rest);
    if (next > columns) return text.substr(0, at);
    columns -= next;
  }
  return text;
}

std::string byteText(double bytes) {
  std::size_t unit = 0;
  const auto halfOfTheLastDigit = [&unit] { return unit == 0 ? 0.5 : 0.05; };
  // A value that rounds up to 1000 moves to the next unit.
  while (bytes >= kUnitStep - halfOfTheLastDigit() && unit + 1 < kUnits.size()) {
    bytes /= kUnitStep;
    ++unit;
  }
  return formatted(unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
}

std::string secondsText(double seconds) { return formatted("%.1f s", seconds); }

std::string timeText(std::chrono::seconds time) {
  const long seconds = time.count();
  const long minutes = seconds / kMinute;
  if (seconds < kHour) return formatted("%ld:%02ld", minutes, seconds % kMinute);
  return formatted("%ld:%02ld:%02ld", seconds / kHour, minutes % kMinute, seconds % kMinute);
}

std::string utcText(std::time_t time) {
  std::tm parts = {};
  ::gmtime_r(&time, &parts);
  std::array<char, 64> text = {};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

}  // namespace korvex::common
