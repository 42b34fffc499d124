#ifndef KORVEXD_QUEUE_CLAIM_H
#define KORVEXD_QUEUE_CLAIM_H

#include <sys/stat.h>

#include <string>

#include "korvexd/os/File.h"

namespace korvexd {

// A daemon claims the queues that it serves by a lock on their shared-memory objects. The system
// frees the lock when the daemon ends, also when it is killed.

/// The object under a queue's name. Without descriptor, and errno set, when it cannot be opened.
File openQueueObject(const std::string& name);

/// Claims it until it is closed. False when another daemon has it.
bool claimQueueObject(const File& object);

/// What lies under a queue's name, a symbolic link itself too. False, and errno set, when that
/// cannot be told.
bool lookAtQueueObject(const std::string& name, struct stat& found) noexcept;

/// Whether anything lies under a queue's name. Needs no descriptor, of which there may be none
/// left.
bool queueObjectExists(const std::string& name) noexcept;

/// Whether the name leads to this very object. Needs no descriptor either.
bool isQueueObjectNamed(const File& object, const std::string& name) noexcept;

}  // namespace korvexd

#endif
