#ifndef KORVEXD_REPLY_SENDER_H
#define KORVEXD_REPLY_SENDER_H

#include <cstddef>
#include <deque>

#include "korvexd/LockWatch.h"
#include "korvexd/OwnedQueue.h"
#include "korvexd/Reply.h"
#include "korvexd/Stats.h"

namespace korvexd {

/// Sends replies without ever waiting for room: a producer may leave them lying.
///
/// What finds no room is kept, up to kMostPending, and tried again. Throws LockLost, or what the
/// queue library throws, when the response queue is of no more use.
class ReplySender {
 public:
  static constexpr std::size_t kMostPending = 4;

  /// Both outlive the sender.
  ReplySender(OwnedQueue& replies, Stats& stats) noexcept : replies_(replies), stats_(stats) {}

  /// Whether something waits for room.
  bool isPending() const noexcept { return !pending_.empty(); }

  /// Sends, after everything that waits already.
  void send(const Reply& reply);

  /// Whether the producer has picked up everything so far.
  bool isAllTaken() const noexcept { return !isPending() && replies_.view().messages() == 0; }

  /// Tries again what waits.
  void sendPending();

  /// Takes back everything that no producer has picked up.
  void withdraw();

  /// Looks for a producer that died while it picked up a reply, or for a lock that was destroyed.
  /// Costs one read while nobody has the lock.
  void checkLock();

 private:
  void updatePending();

  OwnedQueue& replies_;
  Stats& stats_;
  LockWatch lockWatch_;
  std::deque<Reply> pending_;
};

}  // namespace korvexd

#endif
