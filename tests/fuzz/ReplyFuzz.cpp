// Any reply at all: its text ends within its field, and what passes for a receipt is one, digit by
// digit.
#include <korvex/ShmCommon.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "Bytes.h"
#include "Receipt.h"
#include "shm/ReplyText.h"

using korvex_fuzz::require;

namespace {

/// Reads a receipt in the slowest and plainest way there is.
bool isReceipt(const std::string& text) {
  const std::string before = "stored bytes=", between = " xxh128=";
  if (text.compare(0, before.size(), before) != 0) return false;
  std::size_t at = before.size();
  std::string digits;
  while (at < text.size() && text[at] >= '0' && text[at] <= '9') digits += text[at++];
  const std::string most = "18446744073709551615";
  const std::string value = digits.substr(std::min(digits.find_first_not_of('0'), digits.size()));
  if (digits.empty() || value.size() > most.size()) return false;
  if (value.size() == most.size() && value > most) return false;
  if (text.compare(at, between.size(), between) != 0) return false;
  const std::string digest = text.substr(at + between.size());
  return digest.size() == 32 && digest.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  // What is missing of a short reply is zero, as in the writer.
  korvex::qmx_shm_response_t reply;
  std::memcpy(static_cast<void*>(&reply), bytes, std::min(size, sizeof reply));
  const char* const begin = reply.message;
  const char* const end = std::find(begin, begin + sizeof reply.message, '\0');
  const std::string text(begin, end);
  require(korvex::replyText(reply) == text, "the writer's text");
  require(korvex::tool::textOf(reply) == text, "the tool's text");

  const auto receipt = korvex::tool::parseReceipt(text);
  require(receipt.has_value() == isReceipt(text), "the verdict on a receipt");
  if (receipt) {
    require(receipt->xxh128 == text.substr(text.size() - 32), "the receipt's digest");
    require(text.find(std::to_string(receipt->bytes) + " ") != std::string::npos,
            "the receipt's bytes");
  }
  return 0;
}
