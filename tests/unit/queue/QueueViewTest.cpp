#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "queue/QueueView.h"
#include "support/DaemonQueues.h"
#include "support/FewDescriptors.h"
#include "support/Namespaces.h"
#include "support/QueueFields.h"
#include "support/SharedObject.h"

using korvex::QueueView;
using korvex::test::bytesOfFile;
using korvex::test::bytesOfObject;
using korvex::test::kFirstMessageAt;
using korvex::test::kIndexAt;
using korvex::test::kIndexPointerAt;
using korvex::test::kMaxMessagesAt;
using korvex::test::kMaxMessageSizeAt;
using korvex::test::kMessagesAt;
using korvex::test::QueueLock;
using korvex::test::RawQueue;
using korvex::test::SharedObject;
using korvex::test::uniqueQueueName;
using State = QueueView::State;

namespace korvex {
std::ostream& operator<<(std::ostream& stream, QueueView::State state) {
  static const char* const names[] = {"Unreachable", "Unfinished", "Damaged", "Busy", "Sound"};
  return stream << names[static_cast<int>(state)];
}
}  // namespace korvex

namespace {

constexpr std::size_t kHeaderSize = kIndexAt;
constexpr off_t kFirstSlotAt = korvex::test::slotsAt(4);
constexpr std::uint64_t kSlotSize = 320;  // 16 + 304

/// The bytes of a fresh queue of 4 messages of 300 bytes.
Bytes queueImage() {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  return bytesOfObject(queue.name());
}

Bytes word(std::uint32_t value) {
  Bytes bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

Bytes size(std::uint64_t value) {
  Bytes bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

/// The index entry at this place, as it leads to an offset in the object.
Bytes entryAt(off_t place, std::uint64_t target) {
  return size(target - static_cast<std::uint64_t>(place));
}

/// Whether a view of a sound queue still finds it intact after one field was overwritten.
bool isIntactAfterChange(off_t offset, const Bytes& bytes) {
  SharedObject object(uniqueQueueName(), queueImage());
  const QueueView view(object.name());
  EXPECT_TRUE(view.isIntact());
  object.write(offset, bytes);
  return view.isIntact();
}

/// Whether an object with this content can be a queue.
bool canBeQueue(const Bytes& content) {
  const SharedObject object(uniqueQueueName(), content);
  const int file = ::shm_open(object.name().c_str(), O_RDONLY, 0);
  const bool result = QueueView::canBeQueue(file);
  ::close(file);
  return result;
}

/// Zeros but for one byte.
Bytes zerosBut(std::size_t size, std::size_t place) {
  Bytes bytes(size);
  bytes[place] = 1;
  return bytes;
}

/// What a view makes of a sound queue's bytes after one field was overwritten.
State afterChange(off_t offset, const Bytes& bytes) {
  SharedObject object(uniqueQueueName(), queueImage());
  object.write(offset, bytes);
  return QueueView(object.name()).state();
}

}  // namespace

TEST(QueueFileSize, FollowsTheMeasuredSizes) {
  EXPECT_EQ(QueueView::fileSize(4, 132), kHeaderSize + 640);
  EXPECT_EQ(QueueView::fileSize(4, 300), kHeaderSize + 1312);
  EXPECT_EQ(QueueView::fileSize(1, 1), kHeaderSize + 32);
  EXPECT_EQ(QueueView::fileSize(3, 13), kHeaderSize + 120);
  EXPECT_EQ(QueueView::fileSize(10, 4096), kHeaderSize + 41200);
  EXPECT_EQ(QueueView::fileSize(64, 65536), kHeaderSize + 4195840);
}

TEST(QueueFileSize, IsZeroForLimitsThatNoObjectCanHave) {
  EXPECT_EQ(QueueView::fileSize(0, 100), 0u);
  EXPECT_EQ(QueueView::fileSize(100, 0), 0u);
  EXPECT_EQ(QueueView::fileSize(1, ~std::size_t{0}), 0u);
  EXPECT_EQ(QueueView::fileSize(~std::size_t{0}, 1), 0u);
  EXPECT_EQ(QueueView::fileSize(std::size_t{1} << 60, 8), 0u) << "the product wraps";
}

TEST(QueueView, TellsTheLimitsOfASoundQueue) {
  const RawQueue queue(uniqueQueueName(), 5, 301);
  const QueueView view(queue.name());
  EXPECT_EQ(view.state(), State::Sound);
  EXPECT_EQ(view.maxMessages(), 5u);
  EXPECT_EQ(view.maxMessageSize(), 301u);
  EXPECT_EQ(view.systemError(), 0);
}

TEST(QueueView, KnowsWhatCanBeAQueueByItsHeader) {
  const Bytes queue = queueImage();
  EXPECT_TRUE(canBeQueue(queue));
  EXPECT_TRUE(canBeQueue(Bytes(queue.begin(), queue.begin() + kHeaderSize))) << "cut";
  EXPECT_FALSE(canBeQueue(Bytes(4096, 'x')));
  EXPECT_FALSE(canBeQueue(zerosBut(4096, kIndexPointerAt)));
}

// A creator that was killed leaves zeros behind, and perhaps an init word.
TEST(QueueView, TakesZerosOfTheRightSizeForAQueue) {
  EXPECT_TRUE(canBeQueue({}));
  EXPECT_TRUE(canBeQueue(zerosBut(kIndexPointerAt, 0)));
  EXPECT_FALSE(canBeQueue(Bytes(kIndexPointerAt + 1)));
  EXPECT_FALSE(canBeQueue(Bytes(kHeaderSize + 31)));
  EXPECT_TRUE(canBeQueue(Bytes(kHeaderSize + 32)));
  EXPECT_TRUE(canBeQueue(Bytes(100000)));
  EXPECT_TRUE(canBeQueue(Bytes(kHeaderSize + 65537))) << "a byte by itself behind whole blocks";
  EXPECT_FALSE(canBeQueue(zerosBut(100000, kHeaderSize)));
  EXPECT_FALSE(canBeQueue(zerosBut(100000, 99999)));
}

TEST(QueueView, FollowsTheFillOfTheQueue) {
  RawQueue queue(uniqueQueueName(), 2, 10);
  const QueueView view(queue.name());
  EXPECT_EQ(view.messages(), 0u);
  queue.post("a", 1);
  queue.post("b", 1);
  EXPECT_EQ(view.messages(), 2u);
  EXPECT_TRUE(view.looksFull());
  queue.take();
  EXPECT_FALSE(view.looksFull());
}

TEST(QueueView, LooksIdleWithoutMessagesAndWithAFreeLock) {
  RawQueue queue(uniqueQueueName(), 2, 10);
  const QueueView view(queue.name());
  const QueueView::Glance glance(view);
  EXPECT_TRUE(glance.looksIdle());
  queue.post("a", 1);
  EXPECT_FALSE(glance.looksIdle());
  queue.take();
  const QueueLock lock(queue.name());
  ::pthread_mutex_lock(lock.mutex());
  EXPECT_FALSE(glance.looksIdle());
  ::pthread_mutex_unlock(lock.mutex());
}

// The bits above say that processes share the lock, and hold notes of glibc's own.
TEST(QueueView, TellsTheLocksKindFromItsLowerSevenBits) {
  SharedObject object(uniqueQueueName(), queueImage());
  const QueueView view(object.name());
  for (const std::uint32_t kind : {0u, 1u, 16u, 127u}) {
    object.write(korvex::test::kLockKindAt, word(kind | 128u | 512u));
    EXPECT_EQ(view.lockKind(), kind);
  }
}

TEST(QueueView, CountsTheBytesOfTheMessagesThatWaitAlone) {
  RawQueue queue(uniqueQueueName(), 4, 10);
  const QueueView view(queue.name());
  for (std::size_t size = 1; size <= 10; ++size) {
    queue.post("0123456789", size);
    queue.post("0123456789", 10);
    EXPECT_EQ(view.waitingBytes(), size + 10);
    queue.take();
    EXPECT_EQ(view.waitingBytes(), 10u);
    queue.take();
  }
}

TEST(QueueView, SeesTheLockAndThatItsOwnerIsGone) {
  if (!korvex::test::seesEveryThread()) GTEST_SKIP() << "no view of other PID namespaces";
  const RawQueue queue(uniqueQueueName(), 2, 10);
  const QueueView view(queue.name());
  const QueueLock lock(queue.name());
  EXPECT_FALSE(view.looksLocked());
  lock.takeAndDie();
  EXPECT_TRUE(view.looksLocked());
  EXPECT_TRUE(view.isLockOwnerGone());
}

TEST(QueueView, KnowsALivingOwner) {
  const RawQueue queue(uniqueQueueName(), 2, 10);
  const QueueView view(queue.name());
  const QueueLock lock(queue.name());
  EXPECT_FALSE(view.isLockOwnerGone());
  ::pthread_mutex_lock(lock.mutex());
  EXPECT_TRUE(view.looksLocked());
  EXPECT_FALSE(view.isLockOwnerGone());
  ::pthread_mutex_unlock(lock.mutex());
}

// The lock names a thread, not a process: one that is not its process's first must count as well.
TEST(QueueView, KnowsALivingOwnerBesidesTheFirstThread) {
  const RawQueue queue(uniqueQueueName(), 2, 10);
  const QueueView view(queue.name());
  const QueueLock lock(queue.name());
  std::promise<void> taken;
  std::promise<void> looked;
  std::thread owner([&] {
    ::pthread_mutex_lock(lock.mutex());
    taken.set_value();
    looked.get_future().wait();
    ::pthread_mutex_unlock(lock.mutex());
  });
  taken.get_future().wait();
  EXPECT_TRUE(view.looksLocked());
  EXPECT_FALSE(view.isLockOwnerGone());
  looked.set_value();
  owner.join();
}

TEST(QueueView, CountsAnUnreapedProcessAsGone) {
  if (!korvex::test::seesEveryThread()) GTEST_SKIP() << "no view of other PID namespaces";
  const RawQueue queue(uniqueQueueName(), 2, 10);
  const QueueView view(queue.name());
  const QueueLock lock(queue.name());
  const pid_t child = ::fork();
  if (child == 0) {
    ::pthread_mutex_lock(lock.mutex());
    ::raise(SIGKILL);
  }
  siginfo_t ended = {};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_TRUE(view.isLockOwnerGone()) << "still a zombie";
  ::waitpid(child, nullptr, 0);
  EXPECT_TRUE(view.isLockOwnerGone()) << "gone";
}

TEST(QueueView, NoticesThatTheNameLeadsElsewhere) {
  const std::string name = uniqueQueueName();
  auto queue = std::make_unique<RawQueue>(name, 2, 10);
  const QueueView view(name);
  EXPECT_TRUE(view.isStillNamed(name));
  queue.reset();
  EXPECT_FALSE(view.isStillNamed(name));
  queue = std::make_unique<RawQueue>(name, 2, 10);
  EXPECT_FALSE(view.isStillNamed(name)) << "another object under the same name";
}

TEST(QueueView, NeedsNoDescriptorToSeeItsName) {
  const RawQueue queue(uniqueQueueName(), 2, 10);
  const QueueView view(queue.name());
  const korvex::test::FewDescriptors none(0);
  EXPECT_TRUE(view.isStillNamed(queue.name()));
  EXPECT_TRUE(view.isStillNamed("/" + queue.name()));
  EXPECT_FALSE(view.isStillNamed(queue.name() + "x"));
}

TEST(QueueView, MovesItsWindowAlong) {
  RawQueue queue(uniqueQueueName(), 2, 10);
  QueueView first(queue.name());
  QueueView second = std::move(first);
  queue.post("a", 1);
  EXPECT_EQ(second.messages(), 1u);
}

TEST(QueueView, AcceptsQueuesOfRelease163) {
  const std::string folder = KORVEX_TEST_DATA;
  const SharedObject replies(uniqueQueueName(), bytesOfFile(folder + "/resp_n4_s132_two.img"));
  const SharedObject batches(uniqueQueueName(), bytesOfFile(folder + "/req_n4_s300_empty.img"));
  const QueueView replyView(replies.name());
  EXPECT_EQ(replyView.state(), State::Sound);
  EXPECT_EQ(replyView.messages(), 2u);
  EXPECT_EQ(QueueView(batches.name()).state(), State::Sound);
}

TEST(QueueViewUntrusted, AbsentObjectIsUnreachable) {
  const QueueView view(uniqueQueueName());
  EXPECT_EQ(view.state(), State::Unreachable);
  EXPECT_EQ(view.systemError(), ENOENT);
}

TEST(QueueViewUntrusted, UnusableNamesAreUnreachable) {
  EXPECT_EQ(QueueView("a/b").systemError(), EINVAL);
  EXPECT_EQ(QueueView(std::string(300, 'n')).systemError(), EINVAL);
}

TEST(QueueViewUntrusted, EveryCutOfAQueueIsRefused) {
  const Bytes whole = queueImage();
  SharedObject object(uniqueQueueName(), whole);
  for (std::size_t left = whole.size(); left-- > 1;) {
    object.resize(static_cast<off_t>(left));
    ASSERT_EQ(QueueView(object.name()).state(), State::Damaged) << "cut after " << left;
  }
  object.resize(0);
  EXPECT_EQ(QueueView(object.name()).state(), State::Unfinished);
}

TEST(QueueViewUntrusted, GrownQueueIsRefused) {
  const Bytes whole = queueImage();
  SharedObject object(uniqueQueueName(), whole);
  object.resize(static_cast<off_t>(whole.size()) + 1);
  EXPECT_EQ(QueueView(object.name()).state(), State::Damaged);
}

TEST(QueueViewUntrusted, InitWordDecidesWhoIsStillBeingMade) {
  EXPECT_EQ(afterChange(0, word(0)), State::Unfinished);
  EXPECT_EQ(afterChange(0, word(1)), State::Unfinished);
  EXPECT_EQ(afterChange(0, word(2)), State::Sound);
  EXPECT_EQ(afterChange(0, word(3)), State::Damaged);
  EXPECT_EQ(afterChange(0, word(77)), State::Damaged);
}

TEST(QueueViewUntrusted, ImpossibleFieldsAreRefused) {
  EXPECT_EQ(afterChange(kIndexPointerAt, size(191)), State::Damaged);
  EXPECT_EQ(afterChange(kMaxMessagesAt, size(0)), State::Damaged);
  EXPECT_EQ(afterChange(kMaxMessagesAt, size(5)), State::Damaged);
  EXPECT_EQ(afterChange(kMaxMessageSizeAt, size(0)), State::Damaged);
  EXPECT_EQ(afterChange(kMaxMessageSizeAt, size(~std::uint64_t{0})), State::Damaged);
  EXPECT_EQ(afterChange(kMessagesAt, size(4)), State::Sound);
  EXPECT_EQ(afterChange(kMessagesAt, size(5)), State::Damaged);
  EXPECT_EQ(afterChange(kFirstMessageAt, size(3)), State::Sound);
  EXPECT_EQ(afterChange(kFirstMessageAt, size(4)), State::Damaged);
}

TEST(QueueViewUntrusted, IndexEntriesMustLeadToSlots) {
  for (const off_t place : {kIndexAt, kIndexAt + 8, kIndexAt + 16, kIndexAt + 24}) {
    EXPECT_EQ(afterChange(place, entryAt(place, kFirstSlotAt)), State::Sound);
    EXPECT_EQ(afterChange(place, entryAt(place, kFirstSlotAt + 3 * kSlotSize)), State::Sound);
    EXPECT_EQ(afterChange(place, entryAt(place, kFirstSlotAt + 4 * kSlotSize)), State::Damaged);
    EXPECT_EQ(afterChange(place, entryAt(place, kFirstSlotAt + 1)), State::Damaged);
    EXPECT_EQ(afterChange(place, entryAt(place, kIndexAt)), State::Damaged);
    EXPECT_EQ(afterChange(place, size(0)), State::Damaged);
    EXPECT_EQ(afterChange(place, size(~std::uint64_t{0})), State::Damaged);
  }
}

TEST(QueueViewUntrusted, MessagesMustFitTheirSlots) {
  for (std::uint64_t slot = 0; slot < 4; ++slot) {
    const auto place = static_cast<off_t>(kFirstSlotAt + slot * kSlotSize);
    EXPECT_EQ(afterChange(place, size(300)), State::Sound);
    EXPECT_EQ(afterChange(place, size(301)), State::Damaged);
    EXPECT_EQ(afterChange(place, size(~std::uint64_t{0})), State::Damaged);
  }
}

TEST(QueueViewUntrusted, NoticesWhenAQueueInUseIsOverwritten) {
  EXPECT_FALSE(isIntactAfterChange(0, word(0)));
  EXPECT_FALSE(isIntactAfterChange(kIndexPointerAt, size(191)));
  EXPECT_FALSE(isIntactAfterChange(kMaxMessagesAt, size(5)));
  EXPECT_FALSE(isIntactAfterChange(kMaxMessageSizeAt, size(301)));
  EXPECT_TRUE(isIntactAfterChange(kMessagesAt, size(4)));
  EXPECT_FALSE(isIntactAfterChange(kMessagesAt, size(5)));
  EXPECT_TRUE(isIntactAfterChange(kFirstMessageAt, size(3)));
  EXPECT_FALSE(isIntactAfterChange(kFirstMessageAt, size(4)));
}

namespace {

/// A queue of 4 messages whose lock is taken in the middle of a change: the first place, counted
/// down as it goes round, is the number of places for a moment.
class QueueInChange {
 public:
  QueueInChange() { ::pthread_mutex_lock(lock_.mutex()); }
  ~QueueInChange() { ::pthread_mutex_unlock(lock_.mutex()); }

  const std::string& name() const { return object_.name(); }
  const QueueView& view() const { return view_; }

  void change(off_t offset, const Bytes& bytes) { object_.write(offset, bytes); }

 private:
  SharedObject object_{uniqueQueueName(), queueImage()};
  QueueView view_{object_.name()};
  QueueLock lock_{object_.name()};
};

}  // namespace

TEST(QueueViewUntrusted, TakenLockExcusesWhatMessagesChange) {
  for (const off_t place : {kFirstMessageAt, kMessagesAt, kIndexAt}) {
    QueueInChange queue;
    queue.change(place, size(5));
    EXPECT_FALSE(queue.view().isIntact()) << place;
    EXPECT_FALSE(queue.view().isDamaged()) << place;
    EXPECT_EQ(QueueView(queue.name()).state(), State::Busy) << place;
  }
}

TEST(QueueViewUntrusted, TakenLockExcusesNothingElse) {
  for (const off_t place : {off_t{0}, kIndexPointerAt, kMaxMessagesAt, kMaxMessageSizeAt}) {
    QueueInChange queue;
    queue.change(place, place == 0 ? word(5) : size(5));
    EXPECT_TRUE(queue.view().isDamaged()) << place;
    EXPECT_EQ(QueueView(queue.name()).state(), State::Damaged) << place;
  }
}

TEST(QueueViewUntrusted, FreeLockExcusesNothing) {
  SharedObject object(uniqueQueueName(), queueImage());
  const QueueView view(object.name());
  EXPECT_FALSE(view.isDamaged());
  object.write(kFirstMessageAt, size(4));
  EXPECT_TRUE(view.isDamaged());
}

// Of a fresh queue the next message goes before the first entry, which is looked at as well.
TEST(QueueViewUntrusted, NoticesWhenTheNextSlotsAreOverwritten) {
  EXPECT_FALSE(isIntactAfterChange(kIndexAt, size(7)));
  EXPECT_TRUE(isIntactAfterChange(kIndexAt + 8, size(7))) << "not the next operation's business";
  EXPECT_FALSE(isIntactAfterChange(kIndexAt + 24, size(7)));
  EXPECT_FALSE(isIntactAfterChange(kFirstSlotAt + 3 * kSlotSize, size(301)));
}

TEST(QueueViewUntrusted, LooksOnlyAtTheSlotsOfTheUse) {
  SharedObject object(uniqueQueueName(), queueImage());
  const QueueView view(object.name());
  object.write(kMessagesAt, size(2));  // of entries 0 and 1; the next goes to entry 3
  object.write(kIndexAt + 24, size(7));
  EXPECT_FALSE(view.isIntact(QueueView::Use::Send));
  EXPECT_TRUE(view.isIntact(QueueView::Use::Receive));
  object.write(kIndexAt + 24, entryAt(kIndexAt + 24, kFirstSlotAt));
  object.write(kIndexAt + 8, size(7));
  EXPECT_TRUE(view.isIntact(QueueView::Use::Send));
  EXPECT_FALSE(view.isIntact(QueueView::Use::Receive));
}

TEST(QueueViewUntrusted, NoticesThatTheNextMessageIsTooLong) {
  const std::string name = uniqueQueueName();
  RawQueue queue(name, 4, 300);
  const QueueView view(name);
  for (int i = 0; i < 3; ++i) queue.post("abc", 3);
  ASSERT_TRUE(view.isIntact());
  // The oldest message lies in the last slot.
  std::fstream(("/dev/shm/" + name), std::ios::in | std::ios::out | std::ios::binary)
      .seekp(kFirstSlotAt + 3 * kSlotSize)
      .write(reinterpret_cast<const char*>(size(301).data()), sizeof(std::uint64_t));
  EXPECT_FALSE(view.isIntact());
}

TEST(QueueViewUntrusted, HugeClaimsAreLookedAtInBoundedTime) {
  constexpr std::uint64_t kMany = std::uint64_t{1} << 40;
  Bytes header = queueImage();
  header.resize(kIndexAt);
  SharedObject object(uniqueQueueName(), header);
  object.write(kMaxMessagesAt, size(kMany));
  object.write(kMaxMessageSizeAt, size(8));
  object.resize(static_cast<off_t>(QueueView::fileSize(kMany, 8)));
  EXPECT_NE(QueueView(object.name()).state(), State::Sound);
}

TEST(QueueViewUntrusted, PipeUnderTheNameIsRefusedWithoutWaiting) {
  const std::string name = uniqueQueueName();
  const std::string path = "/dev/shm/" + name;
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(QueueView(name).state(), State::Damaged);
  ::unlink(path.c_str());
}

TEST(QueueViewUntrusted, FolderAndLinkUnderTheNameAreUnreachable) {
  const std::string name = uniqueQueueName();
  const std::string path = "/dev/shm/" + name;
  ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
  EXPECT_EQ(QueueView(name).systemError(), EINVAL);
  ::rmdir(path.c_str());

  const RawQueue target(uniqueQueueName(), 2, 10);
  ASSERT_EQ(::symlink(("/dev/shm/" + target.name()).c_str(), path.c_str()), 0);
  EXPECT_EQ(QueueView(name).systemError(), ELOOP);
  ::unlink(path.c_str());
}

namespace {

// A fresh queue's slots, as its bytes lie: the first message is put into the last one.
constexpr std::uint64_t kSlotOfFirstMessage = kIndexAt + 992;  // of 4 messages of 300 bytes

/// A queue of 4 messages of 300 bytes with two in it, the first of 100 bytes.
class TwoMessages {
 public:
  TwoMessages() : queue_(uniqueQueueName(), 4, 300), view_(queue_.name()) {
    const std::string text(200, 'x');
    queue_.post(text.data(), 100);
    queue_.post(text.data(), 200);
  }

  RawQueue& queue() { return queue_; }
  QueueView& view() { return view_; }

  /// What is fetched after one field was overwritten.
  std::size_t fetchedAfterChange(off_t offset, const Bytes& bytes) {
    const std::string path = "/dev/shm/" + queue_.name();
    const int file = ::open(path.c_str(), O_WRONLY);
    EXPECT_EQ(::pwrite(file, bytes.data(), bytes.size(), offset),
              static_cast<ssize_t>(bytes.size()));
    ::close(file);
    return view_.fetchNext();
  }

 private:
  RawQueue queue_;
  QueueView view_;
};

}  // namespace

TEST(QueueViewFetch, TakesTheMessageThatIsReceivedNext) {
  TwoMessages two;
  EXPECT_EQ(two.view().fetchNext(), 100u);
  two.queue().post("abc", 3);
  two.queue().take();
  EXPECT_EQ(two.view().fetchNext(), 200u);
}

TEST(QueueViewFetch, LeavesASingleMessageAlone) {
  TwoMessages two;
  two.queue().take();
  EXPECT_EQ(two.view().fetchNext(), 0u);
  two.queue().take();
  EXPECT_EQ(two.view().fetchNext(), 0u);
}

TEST(QueueViewFetch, FollowsNoNumberOutOfTheObject) {
  EXPECT_EQ(TwoMessages().fetchedAfterChange(kMessagesAt, size(5)), 0u);
  EXPECT_EQ(TwoMessages().fetchedAfterChange(kFirstMessageAt, size(4)), 0u);
  EXPECT_EQ(TwoMessages().fetchedAfterChange(kIndexAt + 3 * 8, size(1u << 20)), 0u);
  EXPECT_EQ(TwoMessages().fetchedAfterChange(kIndexAt + 3 * 8, size(~std::uint64_t{0})), 0u);
  EXPECT_EQ(TwoMessages().fetchedAfterChange(kSlotOfFirstMessage, size(301)), 0u);
  EXPECT_EQ(TwoMessages().fetchedAfterChange(kSlotOfFirstMessage, size(300)), 300u)
      << "the longest message";
}

TEST(QueueViewFetch, KeepsToEightMebibytesInAll) {
  constexpr std::size_t kThreeMebibytes = std::size_t{3} << 20;
  const auto fill = [](RawQueue& queue) {
    queue.post("a", 1);
    queue.post("b", 1);
  };
  RawQueue queues[] = {RawQueue(uniqueQueueName(), 3, kThreeMebibytes / 3),
                       RawQueue(uniqueQueueName(), 3, kThreeMebibytes / 3),
                       RawQueue(uniqueQueueName(), 3, kThreeMebibytes / 3)};
  for (RawQueue& queue : queues) fill(queue);
  QueueView first(queues[0].name());
  EXPECT_EQ(first.fetchNext(), 1u);
  {
    QueueView second(queues[1].name());
    EXPECT_EQ(second.fetchNext(), 1u);
    QueueView third(queues[2].name());
    EXPECT_EQ(third.fetchNext(), 0u);
  }
  QueueView third(queues[2].name());
  EXPECT_EQ(third.fetchNext(), 1u) << "what a view took it gives back";
}
