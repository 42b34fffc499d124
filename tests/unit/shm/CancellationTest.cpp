// A thread of the host is cancelled in the library. Wherever that is, the process goes on: the wait
// ends with the thread, or the thread ends behind what must not be left half-way.

#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "korvex/ShmWriter.h"
#include "korvex/StreamGuard.h"
#include "queue/MessageQueue.h"
#include "support/Bytes.h"
#include "support/DaemonQueues.h"
#include "support/RestoredDescriptor.h"
#include "support/SharedObject.h"

using korvex::ShmWriter;
using korvex::test::DaemonQueues;
using korvex::test::nextDescriptor;
using korvex::test::QueueLock;
using korvex::test::RawQueue;
using korvex::test::SharedObject;
using korvex::test::uniqueQueueName;

namespace {

constexpr unsigned kDay = 86400;
constexpr unsigned kHang = 60;  // seconds after which a child counts as hanging

/// Runs the work in a thread that is cancelled at its first chance. Says how the thread ended.
std::string endOfCancelled(const std::function<void()>& work) {
  pthread_t thread;
  const auto run = [](void* task) -> void* {
    ::pthread_cancel(::pthread_self());
    (*static_cast<const std::function<void()>*>(task))();
    return nullptr;
  };
  ::pthread_create(&thread, nullptr, run, const_cast<std::function<void()>*>(&work));
  void* result = nullptr;
  ::pthread_join(thread, &result);
  return result == PTHREAD_CANCELED ? "cancelled" : "ran to its end";
}

/// Runs the test in a child process, which a terminate or a hang ends instead of all tests.
void inAChild(const std::function<void()>& test) {
  EXPECT_EXIT(
      {
        ::alarm(kHang);
        test();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

void write(ShmWriter& writer, const std::string& text) {
  writer.writeSegment(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

const std::string kSegment =
    "00000001 00000003 0000000000000002 0000000000000000 00000000 00000000 00000000 00000000 "
    "00000000 aabbccdd 616263";

}  // namespace

TEST(Cancellation, WaitingForRoomLeavesTheBatchUnchanged) {
  inAChild([] {
    DaemonQueues queues(4096, 1);
    ShmWriter writer("stream", queues.name(), kDay, 0, false);
    writer.open();  // fills the queue
    write(writer, "abc");
    EXPECT_EQ(endOfCancelled([&] { writer.flush_shm_buffer(kDay); }), "cancelled");
    queues.takeBatch();
    writer.flush_shm_buffer(kDay);
    EXPECT_EQ(hexOf(queues.takeBatch()), hex("ff00ee11 00000001" + kSegment));
  });
}

TEST(Cancellation, WaitingForTheLockLeavesTheBatchUnchanged) {
  inAChild([] {
    DaemonQueues queues;
    ShmWriter writer("stream", queues.name(), kDay, 0, false);
    const QueueLock lock(queues.name());
    ::pthread_mutex_lock(lock.mutex());
    EXPECT_EQ(endOfCancelled([&] { writer.open(); }), "cancelled");
    ::pthread_mutex_unlock(lock.mutex());
    writer.flush_shm_buffer(kDay);
    EXPECT_EQ(hexOf(queues.takeBatch()).substr(0, 24), hex("ff00ee11 00000001 00000000"));
  });
}

TEST(Cancellation, OfAConstructionLeavesNothing) {
  inAChild([] {
    const std::string name = uniqueQueueName();
    const RawQueue send(name, 4, 4096);
    const SharedObject unfinished(name + "Response");
    const int descriptor = nextDescriptor();
    EXPECT_EQ(endOfCancelled([&] { ShmWriter("stream", name, kDay, 0, false); }), "cancelled");
    EXPECT_EQ(nextDescriptor(), descriptor);
  });
}

// The looks at the queues are made of calls that a thread can be cancelled in.
TEST(Cancellation, OfAConstructionThatNeedNotWaitIsDeferred) {
  inAChild([] {
    DaemonQueues queues;
    std::atomic<bool> isMade{false};
    EXPECT_EQ(endOfCancelled([&] {
                const ShmWriter writer("stream", queues.name(), kDay, 0, false);
                isMade = true;
                ::pthread_testcancel();
              }),
              "cancelled");
    EXPECT_TRUE(isMade);
  });
}

TEST(Cancellation, ComesBehindADestructionThatWaits) {
  inAChild([] {
    DaemonQueues queues(4096, 1);
    auto writer = std::make_unique<ShmWriter>("stream", queues.name(), 1, 0, false);
    writer->open();  // fills the queue
    std::atomic<bool> isDestroyed{false};
    EXPECT_EQ(endOfCancelled([&] {
                writer.reset();
                isDestroyed = true;
                ::pthread_testcancel();
              }),
              "cancelled");
    EXPECT_TRUE(isDestroyed);
  });
}

// A destructor that waited for room would keep those who wait for the thread to end.
TEST(Cancellation, OfAWaitLetsTheDestructorTryOnce) {
  inAChild([] {
    DaemonQueues queues(4096, 1);
    EXPECT_EQ(endOfCancelled([&] {
                ShmWriter writer("stream", queues.name(), kDay, 0, false);
                writer.open();  // fills the queue
                writer.close();
              }),
              "cancelled");
    EXPECT_EQ(queues.send().waiting(), 1u);
  });
}

TEST(Cancellation, ElsewhereLetsTheDestructorClose) {
  inAChild([] {
    DaemonQueues queues;
    EXPECT_EQ(endOfCancelled([&] {
                ShmWriter writer("stream", queues.name(), kDay, 0, false);
                writer.open();
                queues.takeBatch();
                ::pthread_testcancel();
              }),
              "cancelled");
    EXPECT_EQ(hexOf(queues.takeBatch()).substr(0, 24), hex("ff00ee11 00000001 00000003"));
  });
}

// The next thread's waits are its own.
TEST(Cancellation, OfOneThreadLeavesTheOthersTheirWaits) {
  inAChild([] {
    DaemonQueues queues(4096, 1);
    ShmWriter writer("stream", queues.name(), 1, 0, false);
    writer.open();  // fills the queue
    EXPECT_EQ(endOfCancelled([&] { writer.flush_shm_buffer(kDay); }), "cancelled");
    EXPECT_EQ(endOfCancelled([&] { writer.flush_shm_buffer(kDay); }), "cancelled");
  });
}

TEST(Cancellation, OfAGuardThatStopsComesBehindItsWait) {
  inAChild([] {
    DaemonQueues queues(4096, 1);
    ShmWriter writer("stream", queues.name(), kDay, 2, false);
    writer.open();  // fills the queue
    const auto fail = [&] {
      const auto start = std::chrono::steady_clock::now();
      try {
        const korvex::StreamGuard guard(writer);
        throw std::runtime_error("the input is damaged");
      } catch (const std::runtime_error&) {
      }
      // The two seconds count from the start of the current one, by a coarse clock.
      EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
      ::pthread_testcancel();
    };
    EXPECT_EQ(endOfCancelled(fail), "cancelled");
    queues.takeBatch();
  });
}
