#ifndef KORVEX_RECEIVER_IDLE_WATCHER_H
#define KORVEX_RECEIVER_IDLE_WATCHER_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "idle/HeaderPages.h"
#include "idle/OpenEvents.h"
#include "queue/MessageQueue.h"
#include "queues/QueueObject.h"

namespace korvex::receiver {

class IdlePlace;

/// The thread of an IdleWatch.
///
/// Reads without the lock what peers write to a queue. It polls states, not events, so nothing is
/// missed while a receiver goes to sleep. Any state but that of an idle queue wakes the receiver,
/// which knows how to handle it.
class IdleWatcher {
 public:
  using Clock = MessageQueue::Clock;

  /// Throws SystemError when the system has no thread to give.
  IdleWatcher();
  ~IdleWatcher();
  IdleWatcher(const IdleWatcher&) = delete;
  IdleWatcher& operator=(const IdleWatcher&) = delete;

 private:
  friend class IdlePlace;

  /// A receiver whose thread sleeps. Kept side by side, because every round reads them all.
  struct Sleeper {
    QueueView::Glance queue;
    const std::atomic<bool>* stop;
    const std::atomic<bool>* orders;
    Clock::time_point recentUntil;
    IdlePlace* place;

    void prefetch() const noexcept;
    bool hasNews() const noexcept;
  };

  void* addPlace();
  void removePlace(void* headerPage) noexcept;
  void add(const Sleeper& sleeper) noexcept;
  void remove(const IdlePlace& place) noexcept;
  void run() noexcept;
  bool awaitRound() noexcept;
  void lookAtAll(bool isOpened) noexcept;
  void checkSome() noexcept;
  void wake(std::size_t at) noexcept;

  OpenEvents opens_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool isOver_ = false;
  std::size_t places_ = 0;
  HeaderPages headerPages_;
  std::vector<Sleeper> sleepers_;  ///< with room for all places
  bool isHurried_ = false;         ///< a message for one of them is likely soon
  unsigned openedRounds_ = 0;      ///< left of a series after a queue was opened
  Clock::time_point nextSeries_{};
  Clock::time_point nextFullRound_{};
  Clock::time_point nextChecks_{};
  std::size_t checked_ = 0;  ///< the index whose turn it was last
  std::thread thread_;
};

/// One receiver's place in the watch, for as long as it lives.
class IdlePlace {
 public:
  using Clock = IdleWatcher::Clock;

  /// What a receiver leaves to the watch while its thread sleeps.
  struct Idleness {
    const QueueView& queue;
    const std::atomic<bool>& stop;
    const std::atomic<bool>& orders;  ///< set when the receiver is to do something else
    Clock::time_point lastSign;       ///< of a producer's life
  };

  /// `mayBeLost` is called by the watch's thread while the receiver's sleeps, at least every two
  /// seconds.
  IdlePlace(IdleWatcher& watcher, std::function<bool()> mayBeLost);
  ~IdlePlace();
  IdlePlace(const IdlePlace&) = delete;
  IdlePlace& operator=(const IdlePlace&) = delete;

  /// What await() is about from now on. Opening this queue makes the watch poll sooner.
  void attach(const std::string& queue, const QueueObject& object) noexcept;

  /// Lets go of the queue's memory, for when it has been lost.
  void detach() noexcept;

  /// Sleeps until the receiver has something to do; false if there was nothing by the deadline.
  bool await(const Idleness& idleness, Clock::time_point deadline) noexcept;

 private:
  friend class IdleWatcher;

  QueueView::Glance glanceAt(const QueueView& queue) const noexcept;
  void wake() noexcept;

  IdleWatcher& watcher_;
  const std::function<bool()> mayBeLost_;
  void* const headerPage_;
  bool isHeaderMapped_ = false;
  std::mutex mutex_;
  std::condition_variable woken_;
  bool isAwake_ = false;
};

}  // namespace korvex::receiver

#endif
