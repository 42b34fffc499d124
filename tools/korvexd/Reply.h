#ifndef KORVEXD_REPLY_H
#define KORVEXD_REPLY_H

#include <korvex/ShmCommon.h>

#include <cstdint>
#include <string>

namespace korvexd {

using Reply = korvex::qmx_shm_response_t;

/// The daemon's own status for data that could not be stored. Damaged batches and streams that
/// break the protocol have korvex::kStatusCorrupt.
constexpr ov_status_t kStatusSinkFailed = 5;

/// A stream is stored: status 0 and "stored bytes=N xxh128=HEX", which producers compare with their
/// own count and digest.
Reply receiptOf(std::uint64_t bytes, const std::string& xxh128);

/// The stream is closed and all of it was taken; its sink takes long to finish. Status 0.
Reply finishingReply();

/// A failure. A text above 127 characters is cut, so what matters comes first.
Reply failureOf(ov_status_t status, const std::string& text);

}  // namespace korvexd

#endif
