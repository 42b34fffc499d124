#include "korvexd/config/Keys.h"

#include <charconv>
#include <chrono>
#include <grp.h>
#include <limits>
#include <string_view>
#include <sys/types.h>

#include "common/CommandLine.h"

namespace korvexd {
namespace {

using korvex::receiver::Limits;
using korvex::receiver::Receiver;

constexpr unsigned kOwnerReadsAndWrites = 0600;
constexpr unsigned kAllPermissions = 0777;
constexpr int kOctal = 8;
constexpr std::string_view kXxh128Name = "xxh128";
constexpr std::string_view kJsonFormat = "json";

std::string rangeText(std::int64_t least, std::int64_t most) {
  return "from " + std::to_string(least) + " to " + std::to_string(most);
}

/// The value as this type; WrongValue with what is expected when it is another.
template <typename Type>
const Type& as(const Value& value, const std::string& expected) {
  const Type* const found = std::get_if<Type>(&value);
  if (found == nullptr) throw WrongValue(expected);
  return *found;
}

std::int64_t numberIn(const Value& value, std::int64_t least, std::int64_t most,
                      const std::string& unit = "") {
  const std::string expected = "a whole number" + unit + " " + rangeText(least, most);
  const std::int64_t number = as<std::int64_t>(value, expected);
  if (number < least || number > most) throw WrongValue(expected);
  return number;
}

std::chrono::seconds secondsIn(const Value& value, std::int64_t least) {
  return std::chrono::seconds(numberIn(value, least, kLongestTime, " of seconds"));
}

/// The system would end it at a NUL.
bool isText(const std::string& text) {
  return !text.empty() && text.find('\0') == std::string::npos;
}

std::string pathIn(const Value& value) {
  const std::string expected = "a path in quotes";
  const auto& path = as<std::string>(value, expected);
  if (!isText(path)) throw WrongValue(expected);
  return path;
}

std::vector<std::string> wordsIn(const Value& value) {
  const std::string expected = R"(a list of words, the program first: ["PROGRAM", "WORD"])";
  const auto& words = as<std::vector<std::string>>(value, expected);
  if (words.empty() || words.front().empty()) throw WrongValue(expected);
  for (const std::string& word : words)
    if (!word.empty() && !isText(word)) throw WrongValue(expected);
  return words;
}

/// Only a text will do: TOML's decimal numbers have no leading zero, and 660 is not 0660.
mode_t modeIn(const Value& value) {
  const auto& text = as<std::string>(value, R"(an octal number in quotes, "0660" for example)");
  const char* const end = text.data() + text.size();
  unsigned mode = 0;
  const auto result = std::from_chars(text.data(), end, mode, kOctal);
  const bool isOctal = result.ec == std::errc() && result.ptr == end && text.size() <= 4;
  if (!isOctal || mode > kAllPermissions) throw WrongValue("an octal number up to 777");
  if ((mode & kOwnerReadsAndWrites) != kOwnerReadsAndWrites) {
    throw WrongValue("read and write permission for the owner (600)");
  }
  return static_cast<mode_t>(mode);
}

gid_t groupNumbered(std::int64_t number) {
  constexpr auto kMost = std::int64_t{std::numeric_limits<gid_t>::max()} - 1;
  return static_cast<gid_t>(numberIn(number, 0, kMost));
}

/// A number may be in quotes: the command line has only texts.
gid_t groupIn(const Value& value) {
  if (const auto* const number = std::get_if<std::int64_t>(&value)) return groupNumbered(*number);
  const std::string expected = "the name or the number of a group of this system";
  const auto& name = as<std::string>(value, expected);
  if (!isText(name)) throw WrongValue(expected);
  if (const group* const found = ::getgrnam(name.c_str())) return found->gr_gid;
  std::int64_t number = 0;
  const char* const end = name.data() + name.size();
  const auto result = std::from_chars(name.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) throw WrongValue(expected);
  return groupNumbered(number);
}

std::size_t bytesIn(const Value& value) {
  constexpr auto kLeast = std::int64_t{Limits::kSmallestMessage};
  constexpr auto kMost = std::int64_t{Limits::kLargestMessage};
  if (std::holds_alternative<std::int64_t>(value)) {
    return static_cast<std::size_t>(numberIn(value, kLeast, kMost, " of bytes"));
  }
  const std::string expected = "a whole number of bytes " + rangeText(kLeast, kMost) +
                               R"(, or one with K, M, G in quotes: "264K")";
  try {
    const std::string digits = korvex::common::byteCount(as<std::string>(value, expected));
    return static_cast<std::size_t>(numberIn(std::stoll(digits), kLeast, kMost));
  } catch (const std::exception&) {
    throw WrongValue(expected);
  }
}

/// `false` would leave the destination undefined.
void takeDiscard(QueueSettings&, const Value& value) {
  const std::string expected = "true, or output or exec instead";
  if (!as<bool>(value, expected)) throw WrongValue(expected);
}

void takeReplace(QueueSettings& queue, const Value& value) {
  const bool replaces = as<bool>(value, "true or false");
  queue.receiver.existing = replaces ? Receiver::Existing::Replace : Receiver::Existing::Refuse;
}

ExtraDigest digestIn(const Value& value) {
  const std::string expected = R"("sha256" or "xxh128")";
  const auto& name = as<std::string>(value, expected);
  if (name != kSha256Name && name != kXxh128Name) throw WrongValue(expected);
  return name == kSha256Name ? ExtraDigest::Sha256 : ExtraDigest::None;
}

LogStyle logStyleIn(const Value& value) {
  const std::string expected = R"("text" or "json")";
  const auto& name = as<std::string>(value, expected);
  if (name != kTextFormat && name != kJsonFormat) throw WrongValue(expected);
  return name == kJsonFormat ? LogStyle::Json : LogStyle::Text;
}

std::int64_t standardMessages() {
  return static_cast<std::int64_t>(Receiver::Settings().limits.messages);
}

std::int64_t standardMessageSize() {
  return static_cast<std::int64_t>(Receiver::Settings().limits.messageSize);
}

}  // namespace

const std::vector<Key<QueueSettings>>& queueKeys() {
  using Queue = QueueSettings;
  static const std::vector<Key<Queue>> keys = {
      {"output", {}, [](Queue& queue, const Value& value) { queue.output = pathIn(value); }},
      {"exec", {}, [](Queue& queue, const Value& value) { queue.engine = wordsIn(value); }},
      {"discard", {}, takeDiscard},
      {"digest", Value(std::string(kSha256Name)),
       [](Queue& queue, const Value& value) { queue.digest = digestIn(value); }},
      {"exec-timeout", std::int64_t{kDefaultEngineTimeout.count()},
       [](Queue& queue, const Value& value) { queue.engineTimeout = secondsIn(value, 1); }},
      {"idle-timeout",
       {},
       [](Queue& queue, const Value& value) { queue.receiver.idleTimeout = secondsIn(value, 1); }},
      {"max-messages", standardMessages(),
       [](Queue& queue, const Value& value) {
         queue.receiver.limits.messages =
             static_cast<std::size_t>(numberIn(value, 1, Limits::kMostMessages));
       }},
      {"max-message-size", standardMessageSize(),
       [](Queue& queue, const Value& value) {
         queue.receiver.limits.messageSize = bytesIn(value);
       }},
      {"mode", Value(std::string("0600")),
       [](Queue& queue, const Value& value) { queue.receiver.mode = modeIn(value); }},
      {"group",
       {},
       [](Queue& queue, const Value& value) { queue.receiver.group = groupIn(value); }},
      {"replace", false, takeReplace},
      {"capture", {}, [](Queue& queue, const Value& value) { queue.capture = pathIn(value); }},
  };
  return keys;
}

const std::vector<Key<DaemonSettings>>& daemonKeys() {
  using Daemon = DaemonSettings;
  static const std::vector<Key<Daemon>> keys = {
      {"stats", {}, [](Daemon& daemon, const Value& value) { daemon.statsFile = pathIn(value); }},
      {"metrics",
       {},
       [](Daemon& daemon, const Value& value) { daemon.metricsFile = pathIn(value); }},
      {"log-format", Value(std::string(kTextFormat)),
       [](Daemon& daemon, const Value& value) { daemon.logStyle = logStyleIn(value); }},
      {"drain-timeout", std::int64_t{0},
       [](Daemon& daemon, const Value& value) { daemon.drainTimeout = secondsIn(value, 0); }},
  };
  return keys;
}

const std::vector<std::string>& sinkKeys() {
  static const std::vector<std::string> keys = {"output", "exec", "discard"};
  return keys;
}

}  // namespace korvexd
