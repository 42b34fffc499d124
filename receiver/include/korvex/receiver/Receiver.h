#ifndef KORVEX_RECEIVER_RECEIVER_H
#define KORVEX_RECEIVER_RECEIVER_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "korvex/receiver/Counters.h"
#include "korvex/receiver/Export.h"
#include "korvex/receiver/Limits.h"
#include "korvex/receiver/Observer.h"
#include "korvex/receiver/Sink.h"

namespace korvex::receiver {

/// The daemon's end of one pair of queues: NAME for a producer's batches, NAMEResponse for replies.
///
/// Makes the queues, takes what producers send, follows their streams, hands the data to a sink for
/// each stream and answers. A stream is complete only when its close record came and everything
/// before it was taken; every other end tells its sink that it is incomplete.
///
/// Whatever a producer sends or does, a receiver goes on: bad messages are refused and counted, a
/// dead producer is noticed, and a pair of queues that a peer broke is removed and made again. It
/// never waits inside a queue and never without a limit on its lock.
///
/// One receiver, one thread. Several receivers of a process serve queues with different names.
class KORVEX_RECEIVER_EXPORT Receiver {
 public:
  /// What to do with queues that exist under these names.
  enum class Existing {
    Refuse,
    Replace  ///< unless a living daemon serves them, or they are not this user's queues
  };

  struct Settings {
    std::string queue;             ///< may start with one slash, holds no other
    Limits limits{8, 264 * 1024};  /// what keeps both sides at work with the largest records
    mode_t mode = 0600;            ///< of both queues, whatever the umask
    Existing existing = Existing::Refuse;
    std::optional<std::chrono::seconds> idleTimeout = {};  ///< fails a silent stream; none: never
  };

  /// Makes the queues; they appear under their names when both are whole. The observer outlives the
  /// receiver. Throws an exception derived from std::exception, SystemError where the system said
  /// no, and leaves nothing behind then.
  Receiver(Settings settings, SinkFactory openSink, Observer& observer);

  /// Ends an open stream as incomplete and removes the queues.
  ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  /// Serves until `stop` is set, takes what was waiting at that moment, and ends an open stream as
  /// incomplete.
  void run(const std::atomic<bool>& stop) noexcept;

  /// Takes one message if there is one, for callers with a loop of their own. Pauses shortly when
  /// there is none. False when there was none.
  bool step() noexcept;

  const std::string& queue() const noexcept;

  /// May be read by any thread.
  const Counters& counters() const noexcept;

 private:
  class Implementation;

  std::unique_ptr<Implementation> implementation_;
};

}  // namespace korvex::receiver

#endif
