#include "stream/Reply.h"

namespace korvex::receiver {

Reply finishingReply() { return replyOf(0, "finishing"); }

Reply replyOf(ov_status_t status, const std::string& text) {
  Reply reply;
  reply.assign(status, text.c_str());
  return reply;
}

}  // namespace korvex::receiver
