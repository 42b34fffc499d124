// Up to where a queue is looked at.

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

constexpr off_t kMessagesAt = 40;
constexpr off_t kFirstMessageAt = 184;
constexpr off_t kIndexAt = 208;
constexpr std::size_t kMostEntriesChecked = 65536;

Bytes number(unsigned char value) { return {value, 0, 0, 0, 0, 0, 0, 0}; }

Bytes imageOf(std::size_t messages) {
  return bytesOfObject(RawQueue(uniqueQueueName(), messages, 1).name());
}

/// What a view makes of a queue of which only the last index entry leads astray.
QueueView::State stateWithBadLastEntry(std::size_t messages) {
  SharedObject object(uniqueQueueName(), imageOf(messages));
  object.write(kIndexAt + 8 * static_cast<off_t>(messages - 1), number(1));
  return QueueView(object.name()).state();
}

/// What a view fetches of a queue of 4 that is overwritten: 2 messages of one byte, from there on.
std::size_t fetchedFrom(unsigned char first) {
  constexpr off_t kMessages = 4;
  constexpr off_t kSlotSize = 24;
  SharedObject object(uniqueQueueName(), imageOf(kMessages));
  for (off_t slot = 0; slot < kMessages; ++slot) {
    object.write(kIndexAt + 8 * kMessages + slot * kSlotSize, number(1));
  }
  QueueView view(object.name());
  object.write(kFirstMessageAt, number(first));
  object.write(kMessagesAt, number(2));
  return view.fetchNext();
}

}  // namespace

// However many there are, a look takes no longer than that.
TEST(QueueLimits, SoManyEntriesAreCheckedAndNoMore) {
  EXPECT_EQ(stateWithBadLastEntry(kMostEntriesChecked), QueueView::State::Damaged);
  EXPECT_EQ(stateWithBadLastEntry(kMostEntriesChecked + 1), QueueView::State::Sound);
}

TEST(QueueLimits, NothingIsFetchedFromBehindTheLastPlace) {
  EXPECT_EQ(fetchedFrom(3), 1u);
  EXPECT_EQ(fetchedFrom(4), 0u);
}
