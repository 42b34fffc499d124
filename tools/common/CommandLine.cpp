#include "common/CommandLine.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>

namespace korvex::common {
namespace {

constexpr std::string_view kUnits = "kmgt";
constexpr unsigned kBitsOfUnit = 10;

[[noreturn]] void refuse(const std::string& text, const std::string& expected) {
  throw CLI::ValidationError("found '" + text + "', expected " + expected);
}

/// Reads the digits that `text` begins with and returns what follows them.
std::string_view readDigits(const std::string& text, std::uint64_t& number,
                            const std::string& expected) {
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec == std::errc::invalid_argument) refuse(text, expected);
  if (result.ec != std::errc()) refuse(text, "at most 18446744073709551615");
  return {result.ptr, static_cast<std::size_t>(end - result.ptr)};
}

/// As the parser reads it: without leading zeros, which it would take for octal.
std::string wholeNumber(const std::string& text) {
  const std::string expected = "a whole number";
  std::uint64_t number = 0;
  if (!readDigits(text, number, expected).empty()) refuse(text, expected);
  return std::to_string(number);
}

}  // namespace

std::string sentenceOf(const CLI::App& app, const CLI::Error& error) {
  if (dynamic_cast<const CLI::ExtrasError*>(&error) == nullptr) return error.what();
  const std::vector<std::string> words = app.remaining(true);
  return (words.size() == 1 ? "The following argument was not expected: "
                            : "The following arguments were not expected: ") +
         CLI::detail::join(words, " ");
}

void takeWholeNumber(CLI::Option& option, std::uint64_t least, std::uint64_t most) {
  option.transform(wholeNumber)->check(CLI::Range(least, most));
}

void takeSeconds(CLI::Option& option, std::uint64_t least, std::uint64_t most) {
  takeWholeNumber(option, least, most);
  option.type_name("SECONDS");
}

std::string byteCount(const std::string& text) {
  const std::string expected = "a whole number of bytes, K, M, G or T may follow";
  std::uint64_t number = 0;
  const std::string_view unit = readDigits(text, number, expected);
  if (unit.empty()) return std::to_string(number);
  const std::string lower = CLI::detail::to_lower(std::string(unit));
  const auto step = kUnits.find(lower.front());
  const std::string rest = lower.substr(1);
  const bool isUnit = step != std::string::npos && (rest.empty() || rest == "b" || rest == "ib");
  if (!isUnit) refuse(text, expected);
  const auto bits = kBitsOfUnit * static_cast<unsigned>(step + 1);
  if (number > std::numeric_limits<std::uint64_t>::max() >> bits) refuse(text, "less");
  return std::to_string(number << bits);
}

}  // namespace korvex::common
