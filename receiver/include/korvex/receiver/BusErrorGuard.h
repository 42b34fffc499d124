#ifndef KORVEX_RECEIVER_BUS_ERROR_GUARD_H
#define KORVEX_RECEIVER_BUS_ERROR_GUARD_H

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// Installs a handler for SIGBUS, for the whole process and until it ends. Call it once, before the
/// first receiver is made.
///
/// A queue is a file in memory, and every process that may write it may also cut it short. Touching
/// what is no longer there raises SIGBUS, which ends a process by default, and with it every other
/// stream. With the guard, a receiver gives up that pair of queues and makes new ones. A SIGBUS
/// that comes from anywhere else is handled as it would have been without the guard.
///
/// It is a call of its own because a library must not take a signal from its host unasked.
KORVEX_RECEIVER_EXPORT void installBusErrorGuard();

}  // namespace korvex::receiver

#endif
