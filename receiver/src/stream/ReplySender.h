#ifndef KORVEX_RECEIVER_REPLY_SENDER_H
#define KORVEX_RECEIVER_REPLY_SENDER_H

#include <array>
#include <cstddef>

#include "korvex/receiver/Counters.h"
#include "queues/OwnedQueue.h"
#include "stream/Reply.h"

namespace korvex::receiver {

/// Sends replies without ever waiting for room: a producer may never take them.
///
/// What finds no room is kept, up to kMostPending, and retried. Allocates nothing for that: by the
/// time a receipt is sent, its stream is stored. Throws LockLost, or what the queue library throws,
/// once the response queue is unusable.
class ReplySender {
 public:
  static constexpr std::size_t kMostPending = 4;

  /// Both outlive the sender.
  ReplySender(OwnedQueue& replies, Counters& counters) : replies_(replies), counters_(counters) {}

  /// Whether something waits for room.
  bool isPending() const noexcept { return waiting_ > 0; }

  /// Sends the reply after those that are already waiting.
  void send(const Reply& reply);

  /// Whether the producer has picked up everything so far.
  bool isAllTaken() { return !isPending() && replies_.messages() == 0; }

  /// Retries what waits.
  void sendPending();

  /// Takes back all replies that no producer has taken.
  void withdraw();

 private:
  void updatePending();

  OwnedQueue& replies_;
  Counters& counters_;
  std::array<Reply, kMostPending> pending_;
  std::size_t waiting_ = 0;  ///< at the front of the array
};

}  // namespace korvex::receiver

#endif
