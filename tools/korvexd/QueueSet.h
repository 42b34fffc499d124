#ifndef KORVEXD_QUEUE_SET_H
#define KORVEXD_QUEUE_SET_H

#include <atomic>
#include <cstdint>
#include <korvex/receiver/IdleWatch.h>
#include <memory>
#include <string>
#include <vector>

#include "korvexd/ServedQueue.h"
#include "korvexd/Sinks.h"
#include "korvexd/config/Settings.h"
#include "korvexd/report/StatsFile.h"

namespace korvexd {

/// All queues of the daemon, and how they change while it runs. Used by one thread.
class QueueSet {
 public:
  QueueSet();
  ~QueueSet();
  QueueSet(const QueueSet&) = delete;
  QueueSet& operator=(const QueueSet&) = delete;

  /// Creates a queue without serving it yet. Throws std::exception and then leaves nothing behind.
  void add(const QueueSettings& settings);

  /// Serves all of them. Throws SystemError when there is no thread for one.
  void start();

  /// Serves these queues from now on: new ones at once, changed ones from their next stream on,
  /// and those that are missing until their open stream has ended. Throws std::exception when
  /// streams of one cannot be stored; nothing has changed then.
  void follow(const std::vector<QueueSettings>& wanted);

  /// Whether a queue is served as these settings say, or will be soon.
  bool serves(const QueueSettings& settings) const;

  /// Periodic work: drops queues that have ended and retries those that could not be created. True
  /// when the set of served queues has changed.
  bool settle() noexcept;

  /// Streams that open from now on are refused; see Receiver::retire().
  void retire() noexcept;

  /// Whether the last stream has ended since then.
  bool haveAllRetired() const noexcept;

  /// Asks all of them to stop serving; does not wait.
  void stop() noexcept;

  /// A queue that still serves: after stop(), one whose sink takes long. None when all have ended;
  /// their statistics can still be read.
  const ServedQueue* stillServing() const noexcept;

  /// Removes the queues that have ended.
  void removeEnded() noexcept;

  /// Logs what each queue is doing.
  void logStates() const;

  /// Good until the set changes.
  std::vector<QueueStats> stats() const;

  /// The names of those that could not be created yet.
  std::vector<std::string> awaited() const;

  /// How often a queue could not be created at the first try, since the start.
  std::uint64_t creationFailures() const noexcept { return creationFailures_; }

  /// The failures of a queue's engines since the start.
  EngineFailureCounts engineFailuresOf(const std::string& queue) const {
    return sinks_.engineFailuresOf(queue);
  }

 private:
  struct Change;

  /// A queue that could not be made yet.
  struct Awaited {
    QueueSettings settings;
    bool isReported = false;  ///< the log says why
  };

  std::vector<Change> changesTo(const std::vector<QueueSettings>& wanted);
  void retireOthersThan(const std::vector<QueueSettings>& wanted) noexcept;
  std::unique_ptr<ServedQueue> make(const QueueSettings& settings);
  ServedQueue* find(const std::string& name) const noexcept;
  void startNew(const QueueSettings& settings);
  bool startAwaited() noexcept;
  bool tryToStart(Awaited& queue) noexcept;
  bool removeRetired() noexcept;

  std::atomic<bool> isEnding_{false};
  Sinks sinks_;
  receiver::IdleWatch idleWatch_;
  std::vector<std::unique_ptr<ServedQueue>> queues_;
  std::vector<Awaited> awaited_;
  std::uint64_t creationFailures_ = 0;
};

}  // namespace korvexd

#endif
