#ifndef KORVEX_SHM_LOCK_OWNER_H
#define KORVEX_SHM_LOCK_OWNER_H

#include <sys/types.h>

namespace korvex {

/// Whether no living thread can have taken a queue's lock under this thread id.
///
/// The lock names its owner by the id that the thread has in its own PID namespace, and queues are
/// shared across namespaces. In ours the id may be free, or a zombie's, while the owner lives. So
/// an id that no living thread has here proves something only to a process that sees all threads
/// of the system and finds none that has the id in its own namespace: one in the initial namespace,
/// with a /proc that hides nothing. Elsewhere the answer is false.
///
/// Never throws. Cheap while a thread here has the id, else one look at every process.
bool isLockOwnerGone(pid_t thread) noexcept;

}  // namespace korvex

#endif
