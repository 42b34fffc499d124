#ifndef KORVEX_RECEIVER_REPLY_QUEUE_H
#define KORVEX_RECEIVER_REPLY_QUEUE_H

#include <cstddef>
#include <korvex/ShmCommon.h>
#include <memory>
#include <optional>
#include <string>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// The queue through which a receiver answers a producer, for a producer that waits for an answer.
///
/// A ShmWriter picks up replies only when it sends a batch. While a stream is being stored there is
/// nothing to send, and empty batches would fill the queue. Take replies here instead; those that
/// the writer has picked up before are in ShmWriter::getResponse().
///
/// Never waits for a peer: neither for a reply nor, longer than some 20 milliseconds, for the
/// queue's lock. Used by one thread at a time.
class KORVEX_RECEIVER_EXPORT ReplyQueue {
 public:
  /// Opens the response queue of the pair that producers know by this name. Throws a std::exception
  /// when it is absent, damaged or only half made.
  explicit ReplyQueue(const std::string& queue);
  ~ReplyQueue();

  /// @{
  /// The one that is moved from may only be destroyed or assigned to.
  ReplyQueue(ReplyQueue&&) noexcept;
  ReplyQueue& operator=(ReplyQueue&&) noexcept;
  /// @}

  /// The oldest reply. Nothing when there is none, or while the queue's lock is taken. A reply's
  /// text may fill its field without a NUL: see textOf() in Receipt.h. Throws a std::exception when
  /// the queue is broken for good.
  std::optional<qmx_shm_response_t> take();

  /// Whether the name still leads to the queue that was opened, uncut.
  bool isStillNamed() const noexcept;

  /// A hint, read without the lock: how many replies wait. 0 when the queue was truncated, where
  /// the guard of BusErrorGuard.h is installed.
  std::size_t messages() const noexcept;

  /// How many replies the queue has room for.
  std::size_t capacity() const noexcept;

 private:
  struct Opened;

  std::unique_ptr<Opened> opened_;
};

}  // namespace korvex::receiver

#endif
