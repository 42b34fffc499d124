#include <gtest/gtest.h>

#include <cerrno>

#include "shm/MessageQueue.h"
#include "support/DaemonQueues.h"

using korvex::MessageQueue;

namespace {

int calls = 0;
int interruptedCalls = 0;

}  // namespace

/// In place of the system's function: signals cut the first calls short.
extern "C" int posix_fallocate(int, off_t, off_t) {
  ++calls;
  return calls <= interruptedCalls ? EINTR : 0;
}

// Once for the trial whether there is room and once for the queue itself.
TEST(Reservation, IsTriedAgainWhenASignalCutsItShort) {
  for (const int interrupted : {0, 1, 2, 5}) {
    const std::string name = korvex_test::uniqueQueueName("reservation");
    calls = 0;
    interruptedCalls = interrupted;
    EXPECT_NO_THROW(MessageQueue(name, {2, 100}, 0600));
    EXPECT_EQ(calls, interrupted + 2);
    EXPECT_TRUE(MessageQueue::remove(name));
  }
}
