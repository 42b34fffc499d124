#ifndef KORVEX_RECEIVER_QUEUES_LEFTOVERS_H
#define KORVEX_RECEIVER_QUEUES_LEFTOVERS_H

#include <string>

#include "korvex/receiver/Leftovers.h"

namespace korvex::receiver {

/// A name for a queue that is being made: ".korvexd-PID-NAMESPACE-RANDOM-RANDOM". The process id
/// alone would not be unique: daemons in containers share /dev/shm and have the same small ids.
std::string temporaryQueueName();

bool isTemporaryQueueName(const std::string& name);

}  // namespace korvex::receiver

#endif
