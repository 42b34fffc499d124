#include <cerrno>
#include <gtest/gtest.h>
#include <signal.h>

#include "queue/MessageQueue.h"
#include "support/DaemonQueues.h"

using korvex::MessageQueue;

namespace {

int calls = 0;
int interruptedCalls = 0;
bool signalsWait = true;

/// Whether a signal that comes now would have to wait.
bool waits(int signal) {
  sigset_t waiting;
  return ::pthread_sigmask(SIG_BLOCK, nullptr, &waiting) == 0 &&
         ::sigismember(&waiting, signal) == 1;
}

}  // namespace

/// In place of the system's function: signals cut the first calls short.
extern "C" int posix_fallocate(int, off_t, off_t) {
  ++calls;
  signalsWait = signalsWait && waits(SIGUSR1) && waits(SIGTERM);
  return calls <= interruptedCalls ? EINTR : 0;
}

// Once for the trial whether there is room and once for the queue itself.
TEST(Reservation, IsTriedAgainWhenASignalCutsItShort) {
  for (const int interrupted : {0, 1, 2, 5}) {
    const std::string name = korvex::test::uniqueQueueName("reservation");
    calls = 0;
    interruptedCalls = interrupted;
    EXPECT_NO_THROW(MessageQueue(name, {2, 100}, 0600));
    EXPECT_EQ(calls, interrupted + 2);
    EXPECT_TRUE(MessageQueue::remove(name));
  }
}

// Each would make the system start again, which takes long for a large queue.
TEST(Reservation, MakesSignalsWaitMeanwhile) {
  const std::string name = korvex::test::uniqueQueueName("reservation");
  interruptedCalls = 0;
  signalsWait = true;
  MessageQueue(name, {2, 100}, 0600);
  EXPECT_TRUE(MessageQueue::remove(name));
  EXPECT_TRUE(signalsWait);
  EXPECT_FALSE(waits(SIGUSR1) || waits(SIGTERM)) << "as before";
}
