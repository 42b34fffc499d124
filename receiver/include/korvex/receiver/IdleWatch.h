#ifndef KORVEX_RECEIVER_IDLE_WATCH_H
#define KORVEX_RECEIVER_IDLE_WATCH_H

#include <memory>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

class IdleWatcher;

/// One thread that watches the idle queues of a process, so that they cost next to nothing however
/// many there are.
///
/// Nobody wakes a receiver: it looks into its queue again and again. A receiver that is given a
/// watch (Receiver::Settings::idleWatch) does so only while messages keep coming. Otherwise its
/// thread sleeps, and the watch looks in its place: every 10 ms, and every 5 ms for a second after
/// a message, or after somebody opened one of the queues. It also sees that `stop` was set, that a
/// lock is taken, and within two seconds that a queue was removed, cut or overwritten.
///
/// May be shared by any number of receivers and outlives them. Its thread takes no signals.
class KORVEX_RECEIVER_EXPORT IdleWatch {
 public:
  /// Starts the thread. Throws SystemError when the system has none to give.
  IdleWatch();

  /// Waits for the thread's end.
  ~IdleWatch();
  IdleWatch(const IdleWatch&) = delete;
  IdleWatch& operator=(const IdleWatch&) = delete;

 private:
  friend class QueueServer;

  std::unique_ptr<IdleWatcher> watcher_;
};

}  // namespace korvex::receiver

#endif
