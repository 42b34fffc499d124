#ifndef KORVEX_RECEIVER_IDLE_WATCH_H
#define KORVEX_RECEIVER_IDLE_WATCH_H

#include <memory>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

class IdleWatcher;

/// One thread that watches the idle queues of a process, so that they cost next to nothing however
/// many there are.
///
/// A queue cannot wake its receiver, which therefore polls it. A receiver that is given a watch
/// (Receiver::Settings::idleWatch) does so only while messages keep coming. Otherwise run() sleeps,
/// and the watch polls the queue: every 10 ms, every 5 ms for 150 ms after a message, and every
/// half millisecond for 4 ms after a process opened one of the queues. It also notices that `stop`
/// was set, that change() or retire() was called, that a lock is taken, and within two seconds that
/// a queue was removed, truncated or overwritten.
///
/// Any number of receivers may share it, and it must outlive them. Its thread blocks all signals
/// but faults (SIGBUS, SIGSEGV, SIGFPE, SIGILL).
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
