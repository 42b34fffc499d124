#ifndef TESTS_PROPERTY_WRITER_LANGUAGE_H
#define TESTS_PROPERTY_WRITER_LANGUAGE_H

#include "property/World.h"

namespace property {

/// What a producer and the daemon at the other end can do.
///
/// `queues` makes both queues anew (`missing` 1: no send queue, 2: no response queue) and
/// `construct` a writer on them, whose name is the text; both destroy the writer before. `take`,
/// `drain`, `fill` and `reply` are the daemon's side; `locale` is the process's own. What needs a
/// writer does nothing without one.
const Language& writerLanguage();

/// The limits that a `queues` operation asks for; no queue holds 0 messages or 0 bytes.
struct QueueLimits {
  std::size_t messages;
  std::size_t messageSize;
};
QueueLimits sendLimitsOf(const Operation& queues);
QueueLimits replyLimitsOf(const Operation& queues);

/// The bytes that a `reply` puts into the response queue: its first `size`, as far as they fit.
Bytes replyOf(const Operation& reply, std::size_t mostBytes);

/// What a foreign producer puts into the send queue.
const Bytes kForeignMessage = "x";

}  // namespace property

#endif
