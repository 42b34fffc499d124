#include "stream/Reply.h"

#include <korvex/receiver/Receipt.h>

namespace korvex::receiver {

Reply finishingReply() { return replyOf(0, std::string(kFinishingText)); }

Reply replyOf(ov_status_t status, const std::string& text) {
  Reply reply;
  reply.assign(status, text.c_str());
  return reply;
}

}  // namespace korvex::receiver
