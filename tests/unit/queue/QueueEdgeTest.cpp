// The exact edges of what counts as a queue and of what is done for one.

#include <cerrno>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <utility>

#include "queue/QueueView.h"
#include "support/DaemonQueues.h"
#include "support/QueueFields.h"
#include "support/SharedObject.h"

using korvex::QueueView;
using korvex::test::bytesOfObject;
using korvex::test::kFirstMessageAt;
using korvex::test::kIndexAt;
using korvex::test::kLockWordAt;
using korvex::test::kMessagesAt;
using korvex::test::mappingsOf;
using korvex::test::RawQueue;
using korvex::test::SharedObject;
using korvex::test::uniqueQueueName;

namespace {

/// The message size with which a queue for two has 8 MiB: 208 + 2 * (8 + 16 + 4194176). Where the
/// header is longer, it ends 8 bytes short of that.
constexpr std::size_t kMostFetchable = (8388608 - kIndexAt) / 2 / 8 * 8 - 24;

constexpr off_t kSlotsAt = korvex::test::slotsAt(4);
constexpr off_t kSlotSize = 320;
constexpr int kMessages = 4;

Bytes number(std::uint64_t value) {
  Bytes bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

/// A queue of 4 messages of 300 bytes that nobody uses, to be overwritten. Entry N leads to slot N,
/// in which a message of N + 1 bytes lies.
class Overwritten {
 public:
  Overwritten() : object_(uniqueQueueName(), freshImage()) {
    for (int entry = 0; entry < kMessages; ++entry) {
      lead(entry, kSlotsAt + entry * kSlotSize);
      write(kSlotsAt + entry * kSlotSize, static_cast<std::uint64_t>(entry) + 1);
    }
  }

  const std::string& name() const { return object_.name(); }
  SharedObject& object() { return object_; }

  void write(off_t offset, std::uint64_t value) { object_.write(offset, number(value)); }

  /// Lets an index entry lead to an offset.
  void lead(int entry, off_t target) {
    const off_t place = kIndexAt + 8 * entry;
    write(place, static_cast<std::uint64_t>(target - place));
  }

  void store(int first, int messages) {
    write(kFirstMessageAt, static_cast<std::uint64_t>(first));
    write(kMessagesAt, static_cast<std::uint64_t>(messages));
  }

 private:
  static Bytes freshImage() {
    const RawQueue queue(uniqueQueueName(), kMessages, 300);
    return bytesOfObject(queue.name());
  }

  SharedObject object_;
};

/// What a view makes of a queue of which only the last index entry leads astray.
QueueView::State stateWithBadLastEntry(std::size_t messages) {
  SharedObject object(uniqueQueueName(),
                      bytesOfObject(RawQueue(uniqueQueueName(), messages, 1).name()));
  object.write(kIndexAt + 8 * static_cast<off_t>(messages - 1), number(1));
  return QueueView(object.name()).state();
}

/// Whether a view finds the queue intact for this use while one entry leads astray.
bool isIntactWithBadEntry(int first, int messages, int bad, QueueView::Use use) {
  Overwritten queue;
  const QueueView view(queue.name());
  queue.store(first, messages);
  queue.lead(bad, kSlotsAt + 1);
  return view.isIntact(use);
}

/// A queue with two messages, so that the next one is worth fetching.
class FilledQueue {
 public:
  FilledQueue(std::size_t messages, std::size_t messageSize)
      : queue_(uniqueQueueName(), messages, messageSize), view_(queue_.name()) {
    queue_.post("a", 1);
    queue_.post("b", 1);
  }

  const std::string& name() const { return queue_.name(); }

  bool isFetchable() { return view_.fetchNext() == 1; }

 private:
  RawQueue queue_;
  QueueView view_;
};

}  // namespace

TEST(QueueEdges, SmallestQueueIsSound) {
  const RawQueue queue(uniqueQueueName(), 1, 1);
  EXPECT_EQ(bytesOfObject(queue.name()).size(), kIndexAt + std::size_t{32});
  EXPECT_EQ(QueueView(queue.name()).state(), QueueView::State::Sound);
}

// A robust lock's word holds a thread's number and flags: no byte of it may be passed over.
TEST(QueueEdges, EveryByteOfTheLockWordCounts) {
  Overwritten queue;
  const QueueView view(queue.name());
  for (off_t byte = kLockWordAt; byte < kLockWordAt + 4; ++byte) {
    queue.object().write(byte, Bytes(1, 1));
    EXPECT_TRUE(view.looksLocked()) << "byte " << byte;
    queue.object().write(byte, Bytes(1, 0));
    EXPECT_FALSE(view.looksLocked());
  }
}

TEST(QueueEdges, EntryLeadingToTheEndLeadsToNoSlot) {
  Overwritten queue;
  const QueueView view(queue.name());
  ASSERT_TRUE(view.isIntact());
  queue.lead(0, kSlotsAt + kMessages * kSlotSize);
  EXPECT_FALSE(view.isIntact());
}

// The next message goes to the entry before the first one, which is looked at for its priority. The
// last one is taken next; of an empty queue it is where the next message will lie.
TEST(QueueEdges, EachUseLooksAtItsOwnEntries) {
  for (int first = 0; first < kMessages; ++first) {
    for (int messages = 0; messages <= kMessages; ++messages) {
      const int next = (first + 3) % kMessages;
      const int last = (first + 3 + messages) % kMessages;
      for (int bad = 0; bad < kMessages; ++bad) {
        const bool isSent = bad == first || bad == next;
        SCOPED_TRACE(testing::Message() << first << " " << messages << " " << bad);
        using Use = QueueView::Use;
        EXPECT_EQ(isIntactWithBadEntry(first, messages, bad, Use::Send), !isSent);
        EXPECT_EQ(isIntactWithBadEntry(first, messages, bad, Use::Receive), bad != last);
        EXPECT_EQ(isIntactWithBadEntry(first, messages, bad, Use::Either), !isSent && bad != last);
      }
    }
  }
}

TEST(QueueEdges, LastMessageIsFetchedWhereverTheQueueBegins) {
  Overwritten queue;
  QueueView view(queue.name());
  for (int first = 0; first < kMessages; ++first) {
    for (int messages = 2; messages <= kMessages; ++messages) {
      queue.store(first, messages);
      const int last = (first + messages - 1) % kMessages;
      EXPECT_EQ(view.fetchNext(), static_cast<std::size_t>(last) + 1) << first << " " << messages;
    }
  }
}

TEST(QueueEdges, NothingIsFetchedFromBehindTheLastPlace) {
  Overwritten queue;
  QueueView view(queue.name());
  queue.store(kMessages - 1, 2);
  EXPECT_EQ(view.fetchNext(), 1u);
  queue.store(kMessages, 2);
  EXPECT_EQ(view.fetchNext(), 0u);
}

TEST(QueueEdges, NothingIsFetchedFromBetweenTwoSlots) {
  Overwritten queue;
  QueueView view(queue.name());
  queue.store(0, 2);
  queue.lead(1, kSlotsAt + 4);
  queue.write(kSlotsAt + 4, 7);
  EXPECT_EQ(view.fetchNext(), 0u);
}

// Behind this object another mapping or nothing may lie.
TEST(QueueEdges, NothingIsFetchedFromBehindTheObject) {
  const std::string name = uniqueQueueName();
  RawQueue made(uniqueQueueName(), 6, 624);
  made.post("a", 1);
  made.post("b", 1);
  SharedObject object(name, bytesOfObject(made.name()));
  QueueView view(name);
  ASSERT_EQ(view.state(), QueueView::State::Sound);
  for (off_t place = kIndexAt; place < kIndexAt + 6 * 8; place += 8) {
    object.write(place, number(static_cast<std::uint64_t>(4096 - place)));
  }
  EXPECT_EQ(view.fetchNext(), 0u);
}

TEST(QueueEdges, MovedViewKeepsAllThatItKnew) {
  FilledQueue filled(2, kMostFetchable);  // all that may be fetchable
  QueueView first(filled.name());
  ASSERT_EQ(first.fetchNext(), 1u);
  const QueueView second = std::move(first);
  EXPECT_EQ(second.state(), QueueView::State::Sound);
  EXPECT_EQ(second.maxMessages(), 2u);
  EXPECT_EQ(second.maxMessageSize(), kMostFetchable);
  EXPECT_TRUE(second.isStillNamed(filled.name()));
  QueueView gone(uniqueQueueName());
  EXPECT_EQ(QueueView(std::move(gone)).systemError(), ENOENT);
}

TEST(QueueEdges, MovedViewGivesEverythingBackOnce) {
  const FilledQueue filled(2, kMostFetchable);
  for (int round = 0; round < 3; ++round) {
    QueueView first(filled.name());
    EXPECT_EQ(first.fetchNext(), 1u);
    QueueView second = std::move(first);
    EXPECT_EQ(second.fetchNext(), 1u) << "it was granted before";
    EXPECT_FALSE(FilledQueue(2, 1).isFetchable()) << "nothing is left";
  }
}

TEST(QueueEdges, ViewTakesItsWindowAway) {
  Overwritten queue;
  {
    QueueView first(queue.name());
    const QueueView second = std::move(first);
    EXPECT_EQ(mappingsOf(queue.name()), 1u);
  }
  EXPECT_EQ(mappingsOf(queue.name()), 0u);
}

TEST(QueueEdges, NameMayBeAsLongAsTheSystemAllows) {
  std::string name = uniqueQueueName();
  name.append(250 - name.size(), 'n');
  const RawQueue queue(name, 4, 300);
  const QueueView view(name);
  EXPECT_TRUE(view.isStillNamed(name));
  EXPECT_TRUE(view.isStillNamed("/" + name));
  EXPECT_FALSE(view.isStillNamed(name + std::string(50, 'n')));
}

TEST(QueueEdges, LargestObjectIsTheLargestFile) {
  constexpr std::size_t kLargestMessage = 9223372036854775776u - kIndexAt;
  EXPECT_EQ(QueueView::fileSize(1, kLargestMessage), 9223372036854775800u);
  EXPECT_EQ(QueueView::fileSize(1, kLargestMessage + 1), 0u);
  EXPECT_EQ(QueueView::fileSize(288230376151711737u, 8), 9223372036854775584u + kIndexAt);
  EXPECT_EQ(QueueView::fileSize(288230376151711738u, 8), 0u);
}

TEST(QueueEdges, ExactlyEightMebibytesAreFetchable) {
  {
    FilledQueue queue(2, kMostFetchable);
    EXPECT_TRUE(queue.isFetchable());
    EXPECT_FALSE(FilledQueue(2, 1).isFetchable()) << "nothing is left";
  }
  EXPECT_FALSE(FilledQueue(2, kMostFetchable + 8).isFetchable());
  EXPECT_TRUE(FilledQueue(2, kMostFetchable).isFetchable()) << "all was given back";
}

// However many there are, a look takes no longer than that.
TEST(QueueEdges, SoManyEntriesAreCheckedAndNoMore) {
  constexpr std::size_t kMostEntriesChecked = 65536;
  EXPECT_EQ(stateWithBadLastEntry(kMostEntriesChecked), QueueView::State::Damaged);
  EXPECT_EQ(stateWithBadLastEntry(kMostEntriesChecked + 1), QueueView::State::Sound);
}
