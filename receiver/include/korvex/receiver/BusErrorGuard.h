#ifndef KORVEX_RECEIVER_BUS_ERROR_GUARD_H
#define KORVEX_RECEIVER_BUS_ERROR_GUARD_H

#include <functional>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// Installs a handler for SIGBUS, for the whole process and until it ends. Call it before the first
/// receiver is made. A later call does nothing, unless the host has set SIGBUS to be ignored or to
/// its default since. Any thread may call it.
///
/// A queue is a file in shared memory: every process that may write to it may also truncate it.
/// Touching it past its end raises SIGBUS, which by default kills the process and every other
/// stream with it. With the guard, a receiver gives up that pair of queues and makes new ones. Any
/// other SIGBUS is handled as it would have been without the guard: a handler that the host had
/// installed is called.
///
/// The system kills a process for a fault that is blocked. So SIGBUS is unblocked in a thread when
/// it first touches a queue, and each time in Receiver::run() and runGuarded(). Do not block it
/// there afterwards.
///
/// A separate call, because a library must not take a signal from its host unasked.
KORVEX_RECEIVER_EXPORT void installBusErrorGuard();

/// Runs a step that touches a queue other than through this library, such as a writer's call.
/// Returns false if a SIGBUS ended the step, for which the guard must be installed; what the step
/// throws passes through.
///
/// A step that ends this way is abandoned: none of its destructors run, a lock that it took stays
/// taken, and the writer must be neither used again nor destroyed.
KORVEX_RECEIVER_EXPORT bool runGuarded(const std::function<void()>& step);

}  // namespace korvex::receiver

#endif
