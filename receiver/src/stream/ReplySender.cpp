#include "stream/ReplySender.h"

#include <algorithm>

namespace korvex::receiver {
namespace {

constexpr unsigned kPriority = 0;  // all alike, so that they keep their order

}  // namespace

void ReplySender::send(const Reply& reply) {
  if (waiting_ < kMostPending) {
    pending_[waiting_++] = reply;
  } else {
    counters_.add(Count::RepliesLost);
  }
  sendPending();
}

void ReplySender::sendPending() {
  while (isPending() && !replies_.looksFull()) {
    const auto outcome = replies_.send(pending_.data(), sizeof(Reply), kPriority);
    if (outcome != MessageQueue::Outcome::Done) break;
    std::move(pending_.begin() + 1, pending_.begin() + waiting_--, pending_.begin());
    counters_.add(Count::RepliesSent);
  }
  updatePending();
}

void ReplySender::withdraw() {
  counters_.add(Count::RepliesWithdrawn, waiting_);
  waiting_ = 0;
  updatePending();
  // No more than the queue can hold: a peer that keeps filling it must not keep us here.
  for (std::size_t i = 0; i < replies_.limits().messages;) {
    Reply reply;
    std::size_t size = 0;
    const auto outcome = replies_.receive(&reply, sizeof reply, size);
    if (outcome == MessageQueue::Outcome::NotReady) return;
    if (outcome == MessageQueue::Outcome::LockTaken) continue;
    counters_.add(Count::RepliesWithdrawn);
    ++i;
  }
}

void ReplySender::updatePending() { counters_.set(Count::RepliesPending, waiting_); }

}  // namespace korvex::receiver
