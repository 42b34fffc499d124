// The exact edges of what counts as a queue and of what is done for one.

#include <gtest/gtest.h>

#include <cstdint>

#include "shm/QueueView.h"
#include "support/DaemonQueues.h"
#include "support/SharedObject.h"

using korvex::QueueView;
using korvex_test::bytesOfObject;
using korvex_test::RawQueue;
using korvex_test::SharedObject;
using korvex_test::uniqueQueueName;

namespace {

/// A queue with two messages, so that the next one is worth fetching.
class FilledQueue {
 public:
  FilledQueue(std::size_t messages, std::size_t messageSize)
      : queue_(uniqueQueueName(), messages, messageSize), view_(queue_.name()) {
    queue_.post("a", 1);
    queue_.post("b", 1);
  }

  bool isFetchable() { return view_.fetchNext() == 1; }

 private:
  RawQueue queue_;
  QueueView view_;
};

}  // namespace

TEST(QueueEdges, SmallestQueueIsSound) {
  const RawQueue queue(uniqueQueueName(), 1, 1);
  EXPECT_EQ(bytesOfObject(queue.name()).size(), 240u);
  EXPECT_EQ(QueueView(queue.name()).state(), QueueView::State::Sound);
}

// A robust lock's word holds a thread's number and flags: no byte of it may be passed over.
TEST(QueueEdges, EveryByteOfTheLockWordCounts) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  SharedObject object(uniqueQueueName(), bytesOfObject(queue.name()));
  const QueueView view(object.name());
  for (off_t byte = 48; byte < 52; ++byte) {
    object.write(byte, Bytes(1, 1));
    EXPECT_TRUE(view.looksLocked()) << "byte " << byte;
    object.write(byte, Bytes(1, 0));
    EXPECT_FALSE(view.looksLocked());
  }
}

TEST(QueueEdges, EntryThatLeadsToTheEndLeadsToNoSlot) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  SharedObject object(uniqueQueueName(), bytesOfObject(queue.name()));
  const QueueView view(object.name());
  ASSERT_TRUE(view.isIntact());
  // The first entry is at 208, the last slot ends at 1520: 1312 = 0x520 bytes on.
  object.write(208, Bytes{0x20, 0x05, 0, 0, 0, 0, 0, 0});
  EXPECT_FALSE(view.isIntact());
}

TEST(QueueEdges, LargestObjectIsAsLargeAsAFileMayBe) {
  constexpr std::size_t kLargestMessage = 9223372036854775568u;
  EXPECT_EQ(QueueView::fileSize(1, kLargestMessage), 9223372036854775800u);
  EXPECT_EQ(QueueView::fileSize(1, kLargestMessage + 1), 0u);
  EXPECT_EQ(QueueView::fileSize(288230376151711737u, 8), 9223372036854775792u);
  EXPECT_EQ(QueueView::fileSize(288230376151711738u, 8), 0u);
}

TEST(QueueEdges, ExactlyEightMebibytesAreFetchable) {
  {
    FilledQueue queue(2, 4194176);  // 208 + 2 * (8 + 16 + 4194176) is 8 MiB
    EXPECT_TRUE(queue.isFetchable());
    EXPECT_FALSE(FilledQueue(2, 1).isFetchable()) << "nothing is left";
  }
  EXPECT_FALSE(FilledQueue(2, 4194184).isFetchable());
  EXPECT_TRUE(FilledQueue(2, 4194176).isFetchable()) << "all was given back";
}
