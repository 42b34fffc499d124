#ifndef KORVEX_RECEIVER_REPLY_H
#define KORVEX_RECEIVER_REPLY_H

#include <korvex/ShmCommon.h>
#include <string>

namespace korvex::receiver {

using Reply = qmx_shm_response_t;

/// The daemon's own status for data that could not be stored. Damaged batches and streams that
/// break the protocol have korvex::kStatusCorrupt.
constexpr ov_status_t kStatusSinkFailed = 5;

/// The text is truncated to 127 characters, so what matters comes first.
Reply replyOf(ov_status_t status, const std::string& text);

/// Status 0: the stream is closed and all of it was taken, but its sink is still finishing.
Reply finishingReply();

}  // namespace korvex::receiver

#endif
