#ifndef KORVEXD_QUEUE_CLAIM_H
#define KORVEXD_QUEUE_CLAIM_H

#include <string>

#include "korvexd/File.h"

namespace korvexd {

// A daemon claims the queues that it serves by a lock on their shared-memory objects. The system
// frees the lock when the daemon ends, also when it is killed.

/// The object under a queue's name. Without descriptor, and errno set, when it cannot be opened.
File openQueueObject(const std::string& name);

/// Claims it until it is closed. False when another daemon has it.
bool claimQueueObject(const File& object);

}  // namespace korvexd

#endif
