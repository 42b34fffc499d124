#include <boost/interprocess/exceptions.hpp>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

#include "queue/MessageQueue.h"
#include "support/DaemonQueues.h"
#include "support/QueueFields.h"
#include "support/SharedObject.h"

using korvex::MessageQueue;
using korvex::test::bytesOfFile;
using korvex::test::bytesOfObject;
using korvex::test::kFirstMessageAt;
using korvex::test::kMaxMessagesAt;
using korvex::test::QueueLock;
using korvex::test::RawQueue;
using korvex::test::SharedObject;
using korvex::test::uniqueQueueName;
using Clock = MessageQueue::Clock;
using Outcome = MessageQueue::Outcome;
namespace ipc = boost::interprocess;

namespace {

const Clock::time_point kPast = Clock::time_point::min();

Clock::time_point inAMinute() { return Clock::now() + std::chrono::minutes(1); }

int errorCodeOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const ipc::interprocess_exception& error) {
    return static_cast<int>(error.get_error_code());
  }
  return ipc::no_error;
}

int openErrorOf(const std::string& name) {
  return errorCodeOf([&] { MessageQueue(name, kPast); });
}

std::string received(MessageQueue& queue) {
  std::vector<char> buffer(queue.maxMessageSize());
  std::size_t size = 0;
  if (queue.tryReceive(buffer.data(), buffer.size(), size) != Outcome::Done) return "nothing";
  return std::string(buffer.data(), size);
}

}  // namespace

TEST(MessageQueueOpen, ErrorsAreTheQueueLibrarysOwn) {
  EXPECT_EQ(openErrorOf(uniqueQueueName()), ipc::not_found_error);
  EXPECT_EQ(openErrorOf("a/b"), ipc::error_info(EINVAL).get_error_code());
}

TEST(MessageQueueOpen, HalfMadeObjectIsRefusedAtTheDeadline) {
  SharedObject object(uniqueQueueName());
  EXPECT_EQ(openErrorOf(object.name()), ipc::corrupted_error);
  object.resize(static_cast<off_t>(korvex::QueueView::fileSize(4, 300)));
  EXPECT_EQ(openErrorOf(object.name()), ipc::corrupted_error);
}

TEST(MessageQueueOpen, DamagedObjectIsRefusedAtOnce) {
  SharedObject object(uniqueQueueName(), Bytes(1, 0));
  EXPECT_EQ(errorCodeOf([&] { MessageQueue(object.name(), inAMinute()); }), ipc::corrupted_error);
}

TEST(MessageQueueOpen, WaitsForACreatorThatFinishes) {
  const RawQueue model(uniqueQueueName(), 4, 300);
  const Bytes image = bytesOfObject(model.name());
  SharedObject object(uniqueQueueName());
  std::size_t found = 0;
  std::thread opener([&] { found = MessageQueue(object.name(), inAMinute()).maxMessageSize(); });
  object.resize(static_cast<off_t>(image.size()));
  object.write(4, Bytes(image.begin() + 4, image.end()));
  object.write(0, Bytes(image.begin(), image.begin() + 4));
  opener.join();
  EXPECT_EQ(found, 300u);
}

TEST(MessageQueueOpen, ReadsWhatRelease163Left) {
  const SharedObject object(uniqueQueueName(),
                            bytesOfFile(std::string(KORVEX_TEST_DATA) + "/resp_n4_s132_two.img"));
  MessageQueue queue(object.name(), kPast);
  EXPECT_EQ(received(queue), std::string(132, '\0'));
  EXPECT_EQ(received(queue), std::string("\7\0\0\0disk full", 13) + std::string(119, '\0'));
  EXPECT_EQ(received(queue), "nothing");
}

TEST(MessageQueueOpen, FillsAQueueOfRelease163) {
  const SharedObject object(uniqueQueueName(),
                            bytesOfFile(std::string(KORVEX_TEST_DATA) + "/req_n4_s300_empty.img"));
  MessageQueue queue(object.name(), kPast);
  EXPECT_TRUE(queue.sendBefore("hello", 5, 1, kPast));
  EXPECT_TRUE(queue.sendBefore("", 0, 1, kPast));
  EXPECT_EQ(received(queue), "hello");
  EXPECT_EQ(received(queue), "");
}

TEST(MessageQueueCreate, RefusesANameThatIsTaken) {
  const RawQueue other(uniqueQueueName(), 2, 10);
  EXPECT_EQ(errorCodeOf([&] {
              MessageQueue(other.name(), {4, 300}, 0600);
            }),
            ipc::already_exists_error);
  EXPECT_EQ(MessageQueue(other.name(), kPast).maxMessageSize(), 10u) << "left as it was";
}

TEST(MessageQueueCreate, SetsExactPermissions) {
  const mode_t before = ::umask(077);
  const std::string name = uniqueQueueName();
  const MessageQueue queue(name, {4, 300}, 0666);
  ::umask(before);
  struct stat found = {};
  EXPECT_EQ(::stat(("/dev/shm/" + name).c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777, 0666u);
  EXPECT_TRUE(MessageQueue::remove(name));
}

TEST(MessageQueueCreate, ReservesItsMemory) {
  const std::string name = uniqueQueueName();
  const MessageQueue queue(name, {4, 1 << 20}, 0600);
  struct stat found = {};
  EXPECT_EQ(::stat(("/dev/shm/" + name).c_str(), &found), 0);
  EXPECT_GE(found.st_blocks * 512, found.st_size);
  EXPECT_TRUE(MessageQueue::remove(name));
}

TEST(MessageQueueCreate, FailsWithoutRoomAndLeavesNothing) {
  const std::string name = uniqueQueueName();
  constexpr std::size_t kMoreThanAnyMachineHas = std::size_t{1} << 46;
  EXPECT_EQ(errorCodeOf([&] {
              MessageQueue(name, {1, kMoreThanAnyMachineHas}, 0600);
            }),
            ipc::out_of_space_error);
  EXPECT_FALSE(MessageQueue::remove(name));
  EXPECT_FALSE(MessageQueue::remove(name + ".room"));
}

TEST(MessageQueueSend, FullQueueIsNoRoomAtTheDeadline) {
  const RawQueue raw(uniqueQueueName(), 1, 10);
  MessageQueue queue(raw.name(), kPast);
  EXPECT_TRUE(queue.sendBefore("a", 1, 1, kPast));
  EXPECT_FALSE(queue.sendBefore("b", 1, 1, kPast));
  EXPECT_EQ(queue.trySend("b", 1, 1), Outcome::NotReady);
}

TEST(MessageQueueSend, GoesOnAsSoonAsThereIsRoom) {
  RawQueue raw(uniqueQueueName(), 1, 10);
  MessageQueue queue(raw.name(), kPast);
  raw.post("a", 1);
  bool sent = false;
  std::thread sender([&] { sent = queue.sendBefore("b", 1, 1, inAMinute()); });
  EXPECT_EQ(raw.take().bytes, Bytes{'a'});
  sender.join();
  EXPECT_TRUE(sent);
  EXPECT_EQ(raw.take().bytes, Bytes{'b'});
}

TEST(MessageQueueSend, TooLargeAMessageIsTheLibrarysError) {
  const RawQueue raw(uniqueQueueName(), 1, 10);
  MessageQueue queue(raw.name(), kPast);
  EXPECT_EQ(errorCodeOf([&] { queue.sendBefore("0123456789+", 11, 1, kPast); }), ipc::size_error);
}

TEST(MessageQueueSend, LockOfADeadProcessMeansNoRoom) {
  const RawQueue raw(uniqueQueueName(), 2, 10);
  MessageQueue queue(raw.name(), kPast);
  QueueLock(raw.name()).takeAndDie();
  EXPECT_FALSE(queue.sendBefore("a", 1, 1, kPast));
  EXPECT_EQ(queue.trySend("a", 1, 1), Outcome::LockTaken);
}

TEST(MessageQueueReceive, LockOfADeadProcessIsAnOutcome) {
  const RawQueue raw(uniqueQueueName(), 2, 10);
  MessageQueue queue(raw.name(), kPast);
  QueueLock(raw.name()).takeAndDie();
  char buffer[10];
  std::size_t size = 0;
  EXPECT_EQ(queue.tryReceive(buffer, sizeof buffer, size), Outcome::LockTaken);
}

TEST(MessageQueueReceive, NextMessageIsTakenOnceTheLockIsFree) {
  RawQueue raw(uniqueQueueName(), 3, 10);
  MessageQueue queue(raw.name(), kPast);
  char buffer[10];
  std::size_t size = 0;
  EXPECT_EQ(queue.tryReceiveNext(buffer, sizeof buffer, size), Outcome::NotReady);
  for (const char* text : {"one", "two", "three"}) raw.post(text, std::strlen(text));
  ASSERT_EQ(queue.tryReceiveNext(buffer, sizeof buffer, size), Outcome::Done);
  EXPECT_EQ(std::string(buffer, size), "one");
  QueueLock(raw.name()).takeAndDie();
  EXPECT_EQ(queue.tryReceiveNext(buffer, sizeof buffer, size), Outcome::LockTaken);
}

TEST(MessageQueueTryLock, TellsWhetherTheLockCanBeHad) {
  const RawQueue raw(uniqueQueueName(), 2, 8);
  MessageQueue queue(raw.name(), kPast);
  EXPECT_EQ(queue.tryLock(), Outcome::Done);
  EXPECT_EQ(queue.tryLock(), Outcome::Done) << "it was given back";
  QueueLock(raw.name()).takeAndDie();
  EXPECT_EQ(queue.tryLock(), Outcome::LockTaken);
}

TEST(MessageQueueUntrusted, OverwrittenQueueIsNotTouched) {
  const std::string name = uniqueQueueName();
  SharedObject object(name, bytesOfObject(RawQueue(uniqueQueueName(), 4, 132).name()));
  MessageQueue queue(name, kPast);
  ASSERT_EQ(queue.tryLock(), Outcome::Done);
  object.write(kMaxMessagesAt, Bytes(8, 0xff));
  char buffer[132];
  std::size_t size = 0;
  EXPECT_EQ(errorCodeOf([&] { queue.trySend("a", 1, 1); }), ipc::corrupted_error);
  EXPECT_EQ(errorCodeOf([&] { queue.tryReceive(buffer, sizeof buffer, size); }),
            ipc::corrupted_error);
  EXPECT_EQ(errorCodeOf([&] { queue.tryLock(); }), ipc::corrupted_error);
}

// A build of the queue library without optimisation stores the number of places as the first place
// for a moment, under the lock.
TEST(MessageQueueUntrusted, ChangeUnderTheLockCountsAsLockTaken) {
  const RawQueue raw(uniqueQueueName(), 4, 10);
  MessageQueue queue(raw.name(), kPast);
  const QueueLock lock(raw.name());
  ::pthread_mutex_lock(lock.mutex());
  lock.field(kFirstMessageAt).store(4);
  char buffer[10];
  std::size_t size = 0;
  EXPECT_EQ(queue.trySend("a", 1, 1), Outcome::LockTaken);
  EXPECT_EQ(queue.tryReceive(buffer, sizeof buffer, size), Outcome::LockTaken);
  EXPECT_EQ(queue.tryReceiveNext(buffer, sizeof buffer, size), Outcome::LockTaken);
  EXPECT_EQ(queue.tryLock(), Outcome::LockTaken);
  EXPECT_FALSE(queue.sendBefore("a", 1, 1, kPast));
  lock.field(kFirstMessageAt).store(3);
  ::pthread_mutex_unlock(lock.mutex());
  EXPECT_EQ(queue.trySend("a", 1, 1), Outcome::Done);
}

TEST(MessageQueueUntrusted, ChangeThatStaysUnderAFreeLockIsDamage) {
  const RawQueue raw(uniqueQueueName(), 4, 10);
  MessageQueue queue(raw.name(), kPast);
  QueueLock(raw.name()).field(kFirstMessageAt).store(4);
  EXPECT_EQ(errorCodeOf([&] { queue.sendBefore("a", 1, 1, inAMinute()); }), ipc::corrupted_error);
}

TEST(MessageQueueReceive, TakesTheHighestPriorityFirst) {
  RawQueue raw(uniqueQueueName(), 2, 10);
  MessageQueue queue(raw.name(), kPast);
  raw.post("low", 3, 1);
  raw.post("high", 4, 2);
  EXPECT_EQ(received(queue), "high");
  EXPECT_EQ(received(queue), "low");
}

// Newer releases of the queue library make the lock robust: a dead owner is told to the next one.
TEST(MessageQueueBroken, LockErrorPassesAndStays) {
  const RawQueue raw(uniqueQueueName(), 2, 10);
  const QueueLock lock(raw.name());
  lock.makeRobust();
  auto queue = std::make_unique<MessageQueue>(raw.name(), kPast);
  lock.takeAndDie();
  const int first = errorCodeOf([&] { queue->sendBefore("a", 1, 1, inAMinute()); });
  EXPECT_TRUE(first == ipc::lock_error || first == 25) << first;
  EXPECT_EQ(errorCodeOf([&] { queue->sendBefore("a", 1, 1, inAMinute()); }), first);
  char buffer[10];
  std::size_t size = 0;
  EXPECT_EQ(errorCodeOf([&] { queue->tryReceive(buffer, sizeof buffer, size); }), first);
}

TEST(MessageQueueBroken, ThreadCanUseAnotherRobustQueueAfterwards) {
  const RawQueue raw(uniqueQueueName(), 2, 10);
  const QueueLock lock(raw.name());
  lock.makeRobust();
  {
    MessageQueue queue(raw.name(), kPast);
    lock.takeAndDie();
    EXPECT_NE(errorCodeOf([&] { queue.trySend("a", 1, 1); }), ipc::no_error);
  }
  const RawQueue next(uniqueQueueName(), 2, 10);
  QueueLock(next.name()).makeRobust();
  MessageQueue queue(next.name(), kPast);
  EXPECT_EQ(queue.trySend("a", 1, 1), Outcome::Done);
}
