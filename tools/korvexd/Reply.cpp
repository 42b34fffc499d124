#include "korvexd/Reply.h"

namespace korvexd {

Reply receiptOf(std::uint64_t bytes, const std::string& xxh128) {
  return failureOf(0, "stored bytes=" + std::to_string(bytes) + " xxh128=" + xxh128);
}

Reply finishingReply() { return failureOf(0, "finishing"); }

Reply failureOf(ov_status_t status, const std::string& text) {
  Reply reply;
  reply.assign(status, text.c_str());
  return reply;
}

}  // namespace korvexd
