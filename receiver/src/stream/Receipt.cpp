#include "korvex/receiver/Receipt.h"

#include <charconv>
#include <cstring>

namespace korvex::receiver {
namespace {

constexpr std::string_view kBeforeBytes = "stored bytes=";
constexpr std::string_view kBeforeDigest = " xxh128=";
constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr std::size_t kDigestDigits = 32;

bool skip(std::string_view& text, std::string_view expected) {
  if (text.substr(0, expected.size()) != expected) return false;
  text.remove_prefix(expected.size());
  return true;
}

/// Without leading zeros.
bool readNumber(std::string_view& text, std::uint64_t& number) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  const auto digits = static_cast<std::size_t>(result.ptr - text.data());
  if (result.ec != std::errc() || digits != std::to_string(number).size()) return false;
  text.remove_prefix(digits);
  return true;
}

bool isDigest(std::string_view text) {
  return text.size() == kDigestDigits &&
         text.find_first_not_of(kHexDigits) == std::string_view::npos;
}

}  // namespace

std::string Receipt::text() const { return "bytes=" + std::to_string(bytes) + " xxh128=" + xxh128; }

std::string Receipt::replyText() const { return "stored " + text(); }

std::optional<Receipt> Receipt::parse(std::string_view untrusted) {
  Receipt receipt = {0, ""};
  if (!skip(untrusted, kBeforeBytes)) return std::nullopt;
  if (!readNumber(untrusted, receipt.bytes)) return std::nullopt;
  if (!skip(untrusted, kBeforeDigest)) return std::nullopt;
  if (!isDigest(untrusted)) return std::nullopt;
  receipt.xxh128 = untrusted;
  return receipt;
}

std::string_view textOf(const qmx_shm_response_t& untrusted) {
  return {untrusted.message, ::strnlen(untrusted.message, sizeof untrusted.message)};
}

}  // namespace korvex::receiver
