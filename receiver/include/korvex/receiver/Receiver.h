#ifndef KORVEX_RECEIVER_RECEIVER_H
#define KORVEX_RECEIVER_RECEIVER_H

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

#include "korvex/receiver/Counters.h"
#include "korvex/receiver/Export.h"
#include "korvex/receiver/Limits.h"
#include "korvex/receiver/Observer.h"
#include "korvex/receiver/Sink.h"

namespace korvex::receiver {

class IdleWatch;

/// The daemon's end of one pair of queues: NAME for a producer's batches, NAMEResponse for replies.
///
/// Makes the queues, takes what producers send, follows their streams, passes the data of each to a
/// sink, and replies. A stream is complete only when its close record came and everything before it
/// was taken; on any other end its sink is told that it is incomplete.
///
/// A receiver survives whatever a producer sends: bad messages are refused and counted, a dead
/// producer is noticed, and a pair of queues that a peer broke is removed and made again. It never
/// waits inside a queue, and never without a limit for a queue's lock. Two things can still crash
/// or hang it, because the queue library trusts the memory that both ends share: a process that
/// overwrites a queue on purpose, and one that is killed while it waits in the queue library's own
/// blocking or timed send, which korvex::ShmWriter never does. Write permission to a queue means
/// trust.
///
/// One receiver, one thread. Several receivers of a process serve queues with different names. A
/// queue is claimed by its daemon's open descriptor, which fork() copies: daemonize before a
/// receiver is made, and let children execute a program or close what they inherit.
class KORVEX_RECEIVER_EXPORT Receiver {
 public:
  /// What to do with queues that exist under these names.
  enum class Existing {
    Refuse,
    Replace  ///< unless a living daemon serves them, or they are not this user's queues
  };

  /// What a receiver serves, and how.
  struct Settings {
    std::string queue;                          ///< may start with one slash, holds no other
    Limits limits{8, std::size_t{264} * 1024};  ///< keeps both sides busy with the largest records
    mode_t mode = 0600;                         ///< of both queues, whatever the umask
    Existing existing = Existing::Refuse;       ///< what to do with a dead daemon's queues
    std::optional<std::chrono::seconds> idleTimeout = {};  ///< more than 0; fails a silent stream
    std::optional<gid_t> group = {};  ///< of both queues; none: the process's own
    IdleWatch* idleWatch = nullptr;   ///< polls the idle queue for run(); outlives the receiver
  };

  /// Makes the queues; they get their names once both are complete. A dead daemon's queues are
  /// removed before: memory may be too short for both pairs. The observer must outlive the
  /// receiver. On failure throws an exception derived from std::exception, SystemError if a system
  /// call failed, std::invalid_argument for an invalid name or idle timeout, and leaves nothing
  /// behind.
  Receiver(Settings settings, SinkFactory openSink, Observer& observer);

  /// Ends an open stream as incomplete and removes the queues, unless run() has done so. Takes no
  /// message that waits; the observer hears how many there are.
  ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  /// Serves until `stop` is set, takes what was waiting at that moment (for 3 seconds at most),
  /// ends an open stream as incomplete and removes the queues.
  void run(const std::atomic<bool>& stop) noexcept;

  /// From the next stream on, serves with these settings, but for the queue's name, `existing` and
  /// `idleWatch`. Any thread may call it. Other limits, another mode or group need other queues:
  /// the current pair is replaced when no stream is open and nothing waits. If that fails, the old
  /// settings and the old factory are kept. The observer learns whether the pair was replaced. Of
  /// several changes between two streams the last holds; a receiver that has retired takes none.
  /// Throws std::invalid_argument for an idle timeout of 0.
  void change(const Settings& settings, SinkFactory openSink);

  /// New streams fail, once the receiver's thread has noticed; those that wait at that moment are
  /// taken. Any thread may call it.
  void retire() noexcept;

  /// Whether it was asked to retire, and no stream is open any more. Any thread may ask.
  bool hasRetired() const noexcept;

  /// Takes one message if there is one, for callers with a loop of their own. Otherwise pauses and
  /// returns false, within 25 ms, or 45 ms while a peer holds the queue's lock; only making lost
  /// queues again can take longer. Only run() asks sinks to hurry and takes what waits before it
  /// ends.
  bool step() noexcept;

  /// The queue's name, as the settings gave it.
  const std::string& queue() const noexcept;

  /// May be read by any thread.
  const Counters& counters() const noexcept;

 private:
  class Implementation;

  std::unique_ptr<Implementation> implementation_;
};

/// Why no queue can have this name, such as "it is empty"; empty if one can. A name may start with
/// one slash. Otherwise it holds neither a slash nor a NUL, is not empty, "." or "..", and leaves
/// room for the response queue's name.
KORVEX_RECEIVER_EXPORT std::string queueNameDefect(const std::string& name);

}  // namespace korvex::receiver

#endif
