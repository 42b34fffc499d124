#ifndef KORVEX_RECEIVER_RECEIPT_H
#define KORVEX_RECEIVER_RECEIPT_H

#include <cstdint>
#include <korvex/ShmCommon.h>
#include <optional>
#include <string>
#include <string_view>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// What one end of a stream knows of it after the close. The receiver sends it as its last reply, a
/// producer keeps its own count, and the stream is stored if the two are equal.
struct KORVEX_RECEIVER_EXPORT Receipt {
  std::uint64_t bytes;  ///< of all data
  std::string xxh128;   ///< of all data: 32 lower-case hex digits

  /// "bytes=N xxh128=HEX".
  std::string text() const;

  /// "stored bytes=N xxh128=HEX", as it stands in a reply with status 0.
  std::string replyText() const;

  /// Reads a reply's text. Accepts only the exact form of replyText(): no sign, no extra or missing
  /// space, no number above 64 bits, no other digits.
  static std::optional<Receipt> parse(std::string_view untrusted);
};

/// The text of a reply with status 0 that is not the last one: the stream is closed and all of it
/// was taken, but its sink is still storing it. It comes every few seconds until the stream is
/// stored or has failed.
inline constexpr std::string_view kFinishingText = "finishing";

/// The text of a reply, which may fill its field without a NUL.
KORVEX_RECEIVER_EXPORT std::string_view textOf(const qmx_shm_response_t& untrusted);

/// Whether the same data was counted.
inline bool operator==(const Receipt& left, const Receipt& right) {
  return left.bytes == right.bytes && left.xxh128 == right.xxh128;
}

}  // namespace korvex::receiver

#endif
