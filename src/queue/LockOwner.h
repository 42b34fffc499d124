#ifndef KORVEX_QUEUE_LOCK_OWNER_H
#define KORVEX_QUEUE_LOCK_OWNER_H

#include <sys/types.h>

namespace korvex {

/// Whether no living thread can be the one that took a queue's lock under this thread id.
///
/// The lock records its owner's thread id in the owner's own PID namespace, and queues are shared
/// across namespaces. Here the id may be free, or a zombie's, while the owner lives. Only a process
/// in the initial namespace, with a /proc that hides nothing, can be sure: it sees all threads of
/// the system and checks that none has the id in its own namespace. Elsewhere the answer is false.
///
/// Never throws. Cheap while a thread here has the id; otherwise it scans every process.
bool isLockOwnerGone(pid_t thread) noexcept;

/// Whether this process is in the initial PID namespace, where every process of the machine has an
/// id. Elsewhere the system hides the others.
bool isInInitialPidNamespace() noexcept;

}  // namespace korvex

#endif
