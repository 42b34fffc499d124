#include "verify/StoredManifest.h"

#include <cerrno>
#include <nlohmann/json.hpp>

#include "Failure.h"
#include "common/Printable.h"
#include "common/StoredNames.h"

namespace korvex::tool {
namespace {

using Json = nlohmann::json;

constexpr std::size_t kSha256Digits = 64;
constexpr std::size_t kXxh128Digits = 32;
constexpr std::size_t kLongestQuote = 80;
constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr std::string_view kDecimalDigits = "0123456789";
constexpr std::string_view kTimeForm = "0000-00-00T00:00:00Z";  // 0 is any digit

[[noreturn]] void refuse(const std::string& text) { throw Failure(EBADMSG, text); }

/// A value for people. Arrays and objects may be nested deeper than the stack allows, so only their
/// kind is named.
std::string quoted(const Json& value) {
  if (value.is_structured()) return std::string("an ") + value.type_name();
  const std::string text =
      common::printable(value.dump(-1, ' ', false, Json::error_handler_t::replace));
  return text.size() <= kLongestQuote ? text : text.substr(0, kLongestQuote) + "...";
}

[[noreturn]] void refuseMember(const std::string& name, const Json& found,
                               const std::string& expected) {
  refuse(name + " is " + quoted(found) + ", expected " + expected);
}

/// The parser's text without the number in brackets that it begins with.
std::string reasonOf(const Json::exception& error) {
  const std::string text = error.what();
  const auto bracket = text.find("] ");
  return common::printable(bracket == std::string::npos ? text : text.substr(bracket + 2));
}

Json parse(std::string_view untrusted) {
  try {
    return Json::parse(untrusted);
  } catch (const Json::exception& error) {
    refuse("not JSON: " + reasonOf(error));
  }
}

const Json& member(const Json& manifest, const std::string& name) {
  const auto found = manifest.find(name);
  if (found == manifest.end()) refuse(name + " is missing");
  return *found;
}

std::uint64_t numberIn(const Json& manifest, const std::string& name) {
  const Json& found = member(manifest, name);
  if (!found.is_number_unsigned()) refuseMember(name, found, "a number from 0 to 2^64 - 1");
  return found.get<std::uint64_t>();
}

std::string textIn(const Json& manifest, const std::string& name) {
  const Json& found = member(manifest, name);
  if (!found.is_string()) refuseMember(name, found, "a text");
  return found.get<std::string>();
}

std::string hexIn(const Json& manifest, const std::string& name, std::size_t digits) {
  const Json& found = member(manifest, name);
  std::string text = found.is_string() ? found.get<std::string>() : "";
  if (text.size() != digits || text.find_first_not_of(kHexDigits) != std::string::npos) {
    refuseMember(name, found, std::to_string(digits) + " lower-case hex digits");
  }
  return text;
}

bool isTime(std::string_view text) {
  if (text.size() != kTimeForm.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isDigit = kDecimalDigits.find(text[i]) != std::string_view::npos;
    if (kTimeForm[i] == '0' ? !isDigit : text[i] != kTimeForm[i]) return false;
  }
  return true;
}

void checkTime(const Json& manifest, const std::string& name) {
  const Json& found = member(manifest, name);
  if (found.is_string() && isTime(found.get_ref<const std::string&>())) return;
  refuseMember(name, found, "a time such as \"2026-11-21T00:56:23Z\"");
}

bool isCompleteIn(const Json& manifest) {
  const Json& found = member(manifest, "state");
  if (found == "complete") return true;
  if (found == "incomplete") return false;
  refuseMember("state", found, "\"complete\" or \"incomplete\"");
}

/// Manifests of earlier versions do not say which digests they have: both.
std::string sha256In(const Json& manifest) {
  const Json digest = manifest.value("digest", Json("sha256"));
  if (digest == "sha256") return hexIn(manifest, "sha256", kSha256Digits);
  if (digest == "xxh128") return "";
  refuseMember("digest", digest, "\"sha256\" or \"xxh128\"");
}

}  // namespace

StoredManifest parseManifest(std::string_view untrusted) {
  const Json json = parse(untrusted);
  if (!json.is_object()) refuse("it is " + quoted(json) + ", expected an object");
  if (numberIn(json, "format") != common::kManifestFormat) {
    refuseMember("format", json["format"], std::to_string(common::kManifestFormat));
  }
  textIn(json, "queue");
  numberIn(json, "segments");
  numberIn(json, "records");
  checkTime(json, "opened");
  checkTime(json, "closed");
  return {isCompleteIn(json), textIn(json, "reason"), numberIn(json, "bytes"), sha256In(json),
          hexIn(json, "xxh128", kXxh128Digits)};
}

}  // namespace korvex::tool
