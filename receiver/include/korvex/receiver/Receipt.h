#ifndef KORVEX_TOOL_RECEIPT_H
#define KORVEX_TOOL_RECEIPT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <korvex/ShmCommon.h>

namespace korvex::tool {

/// What one end of a stream knows of it after the close: the daemon says it in its last reply, the
/// sender counts for itself, and the stream is stored when the two are equal.
struct Receipt {
  std::uint64_t bytes;
  std::string xxh128;  ///< XXH3 of 128 bits over all data bytes, 32 lower-case hex digits

  /// "bytes=N xxh128=HEX".
  std::string text() const;
};

inline bool operator==(const Receipt& left, const Receipt& right) {
  return left.bytes == right.bytes && left.xxh128 == right.xxh128;
}

/// Reads "stored bytes=N xxh128=HEX". Nothing else is a receipt: no sign, no space more or less,
/// no number above 64 bits, no other digits.
std::optional<Receipt> parseReceipt(std::string_view untrusted);

/// A reply's text, which may fill its field without a NUL.
std::string_view textOf(const qmx_shm_response_t& untrustedReply);

}  // namespace korvex::tool

#endif
