#ifndef KORVEX_RECEIVER_OBSERVER_H
#define KORVEX_RECEIVER_OBSERVER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "korvex/receiver/BatchCheck.h"
#include "korvex/receiver/Export.h"
#include "korvex/receiver/StreamSummary.h"

namespace korvex::receiver {

/// Is notified of what happens on one receiver's queues, for logs and alarms. The receiver itself
/// logs nothing.
///
/// Every operation does nothing until it is overridden. All are called on the receiver's thread and
/// hold it up. They are noexcept: an observer must handle its own failures.
///
/// Texts may hold bytes that a producer chose. Escape them before a terminal or a log sees them.
class KORVEX_RECEIVER_EXPORT Observer {
 public:
  Observer() = default;
  virtual ~Observer();
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;

  /// Every message as it came, before any check: nothing is known about the bytes. Messages are
  /// numbered from 1.
  virtual void messageReceived(std::uint64_t number, const unsigned char* untrusted,
                               std::size_t size) noexcept;

  /// A sink takes the data from now on.
  virtual void streamOpened(const std::string& place) noexcept;

  /// The sink has everything; the receipt follows.
  virtual void streamComplete(const StreamSummary& summary, const std::string& place) noexcept;

  /// A stream ended early, or could not be opened at all: then no streamOpened() came before.
  /// `place` is empty when nothing was stored.
  virtual void streamIncomplete(const StreamSummary& summary, const std::string& reason,
                                const std::string& place) noexcept;

  /// A sink's abandon() threw: what it left may not be marked as incomplete.
  virtual void abandoningFailed(const std::string& reason) noexcept;

  /// A message that is not a valid batch. It fails an open stream.
  virtual void batchRefused(std::uint64_t number, const BatchCheck& check) noexcept;

  /// A record that breaks the protocol while no stream is open.
  virtual void recordRefused(const std::string& defect) noexcept;

  /// The queues have become unusable and were given up. From now on the receiver tries to make new
  /// ones, unless it is ending.
  virtual void queuesLost(const std::string& reason) noexcept;

  /// Making new queues failed. Reported only for the first of several failures in a row.
  virtual void queuesNotReplaced(const std::string& reason) noexcept;

  /// New queues are there, after queuesLost() or settingsNotChanged().
  virtual void queuesReplaced() noexcept;

  /// The queues were made again with the settings that Receiver::change() asked for.
  virtual void settingsChanged() noexcept;

  /// The queues could not be made with those settings, and are made again with the old ones.
  virtual void settingsNotChanged(const std::string& reason) noexcept;

  /// The receiver ended while this many messages were waiting.
  virtual void messagesLeft(std::size_t count) noexcept;

  // For a watchdog: a receiver that is working but has not called working() for a long time is
  // stuck, usually in a sink. One that waits may do so forever.

  /// The thread is working. Called before each step of its work, and whenever a sink that is
  /// finishing reports that it still is.
  virtual void working() noexcept;

  /// The step is over, or the thread is about to wait for something to do.
  virtual void waiting() noexcept;
};

}  // namespace korvex::receiver

#endif
