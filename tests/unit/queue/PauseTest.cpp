#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <vector>

#include "korvex/ShmWriter.h"
#include "queue/MessageQueue.h"
#include "queue/Pause.h"
#include "support/DaemonQueues.h"
#include "support/QueueFields.h"
#include "support/SharedObject.h"

using korvex::MessageQueue;
using korvex::Pause;
using korvex::ShmWriter;
using korvex::test::DaemonQueues;
using korvex::test::RawQueue;
using korvex::test::SharedObject;
using korvex::test::uniqueQueueName;
using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

// A program of its own: it takes the place of the system's sleep and yield.
namespace {

constexpr long long kNanoseconds = 1000000000;

std::vector<std::string> steps;
std::function<void()> meanwhile;    // what happens while somebody sleeps
std::function<bool()> lockIsTaken;  // whether the next attempt at a lock is in vain
std::atomic<long long> skipped{0};  // how far the steady clock is ahead, in nanoseconds

/// While it lives, sleeps and waits for locks take no time, and the clock moves on by what they
/// would have taken.
class QuickTime {
 public:
  QuickTime() { isOn = true; }
  ~QuickTime() {
    isOn = false;
    meanwhile = nullptr;
    lockIsTaken = nullptr;
  }
  QuickTime(const QuickTime&) = delete;
  QuickTime& operator=(const QuickTime&) = delete;

  Pause::Clock::duration passed() const { return Pause::Clock::now() - start_; }

  static void skip(long long nanoseconds) {
    if (isOn) skipped += nanoseconds;
  }

 private:
  static inline bool isOn = false;
  const Pause::Clock::time_point start_ = Pause::Clock::now();
};

constexpr long long kLockPatience = 20000000;

}  // namespace

extern "C" int sched_yield() noexcept {
  steps.push_back("yield");
  return 0;
}

extern "C" int nanosleep(const timespec* wanted, timespec*) {
  const long long nanoseconds = wanted->tv_sec * kNanoseconds + wanted->tv_nsec;
  steps.push_back("sleep " + std::to_string(nanoseconds));
  QuickTime::skip(nanoseconds);
  if (meanwhile) meanwhile();
  return 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const int result = static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
  const long long nanoseconds = now->tv_nsec + (clock == CLOCK_MONOTONIC ? skipped.load() : 0);
  now->tv_sec += nanoseconds / kNanoseconds;
  now->tv_nsec = nanoseconds % kNanoseconds;
  return result;
}

extern "C" int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec*) noexcept {
  if (!lockIsTaken || !lockIsTaken()) return ::pthread_mutex_lock(mutex);
  QuickTime::skip(kLockPatience);
  return ETIMEDOUT;
}

namespace {

/// What that many waits do.
std::vector<std::string> wait(Pause& pause, int times, Pause::Clock::duration left = hours(1)) {
  steps.clear();
  const Pause::Clock::time_point deadline = Pause::Clock::now() + left;
  for (int i = 0; i < times; ++i) pause.wait(deadline);
  return steps;
}

constexpr int kSpins = 1024;
constexpr int kSpinsAndYields = 1088;

}  // namespace

TEST(PauseSteps, SpinsAtFirst) {
  Pause pause(milliseconds(4));
  EXPECT_THAT(wait(pause, kSpins), IsEmpty());
}

TEST(PauseSteps, SaysUntilWhenItSpins) {
  Pause pause(milliseconds(4));
  wait(pause, kSpins - 1);
  EXPECT_TRUE(pause.isSpinning());
  wait(pause, 1);
  EXPECT_FALSE(pause.isSpinning());
}

TEST(PauseSteps, YieldsThen) {
  Pause pause(milliseconds(4));
  wait(pause, kSpins);
  EXPECT_EQ(wait(pause, 64), std::vector<std::string>(64, "yield"));
}

TEST(PauseSteps, SleepsAtLastTwiceAsLongEachTime) {
  Pause pause(milliseconds(4));
  wait(pause, kSpinsAndYields);
  EXPECT_THAT(wait(pause, 10),
              ElementsAre("sleep 20000", "sleep 40000", "sleep 80000", "sleep 160000",
                          "sleep 320000", "sleep 640000", "sleep 1280000", "sleep 2560000",
                          "sleep 4000000", "sleep 4000000"));
}

TEST(PauseSteps, StopsDoublingBeforeTheNumberGrowsTooLarge) {
  Pause pause(seconds(100));
  wait(pause, kSpinsAndYields + 15);
  EXPECT_THAT(wait(pause, 3),
              ElementsAre("sleep 655360000", "sleep 1310720000", "sleep 1310720000"));
  wait(pause, 100);
  EXPECT_THAT(wait(pause, 1), ElementsAre("sleep 1310720000"));
}

TEST(PauseSteps, StartsAnewAfterAReset) {
  Pause pause(milliseconds(4));
  wait(pause, kSpinsAndYields + 5);
  pause.reset();
  EXPECT_THAT(wait(pause, kSpins + 1), ElementsAre("yield"));
}

TEST(PauseSteps, SpinsAgainAfterAShortWait) {
  Pause pause(milliseconds(4));
  wait(pause, kSpinsAndYields + 4);
  pause.next();
  EXPECT_THAT(wait(pause, kSpins + 1), ElementsAre("yield"));
}

TEST(PauseSteps, StartsWithASleepAfterALongWait) {
  Pause pause(milliseconds(4));
  wait(pause, kSpinsAndYields + 5);
  pause.next();
  EXPECT_THAT(wait(pause, 2), ElementsAre("sleep 80000", "sleep 160000"));
  wait(pause, 100);
  pause.next();
  EXPECT_THAT(wait(pause, 1), ElementsAre("sleep 320000"));
}

TEST(PauseSteps, ForgetsALongWaitAfterTwoShortOnes) {
  Pause pause(milliseconds(4));
  wait(pause, kSpinsAndYields + 100);
  for (int shortWaits = 0; shortWaits < 2; ++shortWaits) {
    pause.next();
    wait(pause, 1);
  }
  pause.next();
  EXPECT_THAT(wait(pause, 1), IsEmpty());
}

TEST(PauseSteps, SleepsNoLongerThanToTheDeadline) {
  Pause pause(seconds(100));
  wait(pause, kSpinsAndYields + 17);
  ASSERT_EQ(wait(pause, 1, milliseconds(500)).size(), 1u);
  const long long slept = std::stoll(steps[0].substr(sizeof "sleep"));
  EXPECT_LE(slept, kNanoseconds / 2);
}

TEST(PauseSteps, DoesNotSleepAfterTheDeadline) {
  Pause pause(seconds(100));
  wait(pause, kSpinsAndYields + 17);
  EXPECT_THAT(wait(pause, 1, microseconds(-1)), IsEmpty());
}

// Long sleeps would make a sender slow to notice that there is room again.
TEST(MessageQueueSend, SleepsForFourMillisecondsAtMost) {
  const std::string name = uniqueQueueName();
  MessageQueue queue(name, {1, 8}, 0600);
  ASSERT_EQ(queue.trySend("first", 5, 1), MessageQueue::Outcome::Done);
  std::vector<std::string> sleeps;
  meanwhile = [&] {
    sleeps.push_back(steps.back());
    char buffer[8];
    std::size_t size = 0;
    if (sleeps.size() == 10) queue.tryReceive(buffer, sizeof buffer, size);
  };
  EXPECT_TRUE(queue.sendBefore("second", 6, 1, Pause::Clock::now() + hours(1)));
  meanwhile = nullptr;
  EXPECT_THAT(sleeps, ElementsAre("sleep 20000", "sleep 40000", "sleep 80000", "sleep 160000",
                                  "sleep 320000", "sleep 640000", "sleep 1280000", "sleep 2560000",
                                  "sleep 4000000", "sleep 4000000"));
  EXPECT_TRUE(MessageQueue::remove(name));
}

// A sender would otherwise burn a tenth of a millisecond for each batch that it waits for.
TEST(MessageQueueSend, SleepsAtOnceAfterALongWait) {
  const std::string name = uniqueQueueName();
  MessageQueue queue(name, {1, 8}, 0600);
  ASSERT_EQ(queue.trySend("first", 5, 1), MessageQueue::Outcome::Done);
  int sleeps = 0;
  meanwhile = [&] {
    char buffer[8];
    std::size_t size = 0;
    if (++sleeps == 8) queue.tryReceive(buffer, sizeof buffer, size);
    if (sleeps < 9) return;
    EXPECT_THAT(steps, ElementsAre("sleep 320000"));
    queue.tryReceive(buffer, sizeof buffer, size);
  };
  EXPECT_TRUE(queue.sendBefore("second", 6, 1, Pause::Clock::now() + hours(1)));
  steps.clear();
  EXPECT_TRUE(queue.sendBefore("third", 5, 1, Pause::Clock::now() + hours(1)));
  meanwhile = nullptr;
  EXPECT_EQ(sleeps, 9);
  EXPECT_TRUE(MessageQueue::remove(name));
}

TEST(MessageQueueSend, GoesOnAsSoonAsAPeersChangeEnds) {
  const std::string name = uniqueQueueName();
  MessageQueue queue(name, {4, 8}, 0600);
  const int object = ::shm_open(name.c_str(), O_RDWR, 0);
  const auto write = [object](off_t offset, auto value) {
    EXPECT_EQ(::pwrite(object, &value, sizeof value, offset), ssize_t{sizeof value});
  };
  write(korvex::test::kLockWordAt, std::uint32_t{1});
  write(korvex::test::kMessagesAt, std::uint64_t{5});
  const QuickTime time;
  meanwhile = [&] {
    write(korvex::test::kMessagesAt, std::uint64_t{0});
    write(korvex::test::kLockWordAt, std::uint32_t{0});
  };
  EXPECT_EQ(queue.trySend("x", 1, 1), MessageQueue::Outcome::Done);
  EXPECT_LT(time.passed(), milliseconds(20)) << "the patience with a lock";
  ::close(object);
  EXPECT_TRUE(MessageQueue::remove(name));
}

TEST(MessageQueueOpen, SleepsWhileAQueueIsBeingMade) {
  const std::string name = uniqueQueueName();
  const int unfinished = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(unfinished, 0);
  ::close(unfinished);
  std::vector<std::string> sleeps;
  meanwhile = [&] {
    sleeps.push_back(steps.back());
    if (sleeps.size() == 3) ::shm_unlink(name.c_str());
  };
  EXPECT_ANY_THROW(MessageQueue(name, Pause::Clock::now() + hours(1))) << "it is gone";
  meanwhile = nullptr;
  EXPECT_THAT(sleeps, ElementsAre("sleep 20000", "sleep 40000", "sleep 80000"));
}

TEST(ShmWriterSend, WaitsUntilTheDaemonTakesABatch) {
  constexpr unsigned int kLongTimeout = 60;
  DaemonQueues queues(4096, 1);
  ShmWriter writer("stream", queues.name(), kLongTimeout, 0, false);
  writer.open();  // fills the queue
  int sleeps = 0;
  meanwhile = [&] {
    if (++sleeps == 3) queues.takeBatch();
  };
  EXPECT_NO_THROW(writer.close());
  meanwhile = nullptr;
  EXPECT_EQ(sleeps, 3);
}

TEST(ShmWriterConstruction, WaitsForAQueueThatIsBeingMade) {
  const std::string name = uniqueQueueName();
  const RawQueue response(name + "Response", 4, 132);
  const int unfinished = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(unfinished, 0);
  ::close(unfinished);
  std::unique_ptr<RawQueue> send;
  int sleeps = 0;
  meanwhile = [&] {
    if (++sleeps != 3) return;
    ::shm_unlink(name.c_str());
    send = std::make_unique<RawQueue>(name, 4, 4096);
  };
  EXPECT_NO_THROW(ShmWriter("stream", name, 60, 0, false));
  meanwhile = nullptr;
  EXPECT_EQ(sleeps, 3);
}

// A queue that was left half-made is not worth the timeout of a day.
TEST(ShmWriterConstruction, WaitsFiveSecondsAtMost) {
  constexpr unsigned kDay = 86400;
  const std::string name = uniqueQueueName();
  const SharedObject unfinished(name);
  const QuickTime time;
  meanwhile = [&] {
    if (time.passed() > seconds(10)) ::shm_unlink(name.c_str());  // ends the wait, too late
  };
  EXPECT_ANY_THROW(ShmWriter("stream", name, kDay, 0, false));
  EXPECT_GE(time.passed(), seconds(5));
  EXPECT_LT(time.passed(), seconds(6));
}

TEST(ShmWriterConstruction, WaitsNoLongerThanTheTimeout) {
  const SharedObject unfinished(uniqueQueueName());
  const QuickTime time;
  EXPECT_ANY_THROW(ShmWriter("stream", unfinished.name(), 1, 0, false));
  EXPECT_GE(time.passed(), seconds(1));
  EXPECT_LT(time.passed(), seconds(2));
}

namespace {

/// A send whose deadline has passed, on a queue whose lock is taken.
class SendAtTheDeadline : public testing::Test {
 protected:
  bool send() { return queue_.sendBefore("a", 1, 1, Pause::Clock::now()); }

  /// The lock is had at this attempt; 0 for never.
  void takeLockUntil(int attempt) {
    lockIsTaken = [this, attempt] { return ++attempts_ != attempt; };
  }

  RawQueue raw_{uniqueQueueName(), 1, 8};
  MessageQueue queue_{raw_.name(), Pause::Clock::now()};
  const QuickTime time_;
  int attempts_ = 0;
};

}  // namespace

TEST_F(SendAtTheDeadline, WaitsForABrieflyTakenLock) {
  takeLockUntil(6);
  EXPECT_TRUE(send());
  EXPECT_EQ(attempts_, 6);
}

TEST_F(SendAtTheDeadline, GivesUpOnALockWithin250Milliseconds) {
  takeLockUntil(0);
  EXPECT_FALSE(send());
  EXPECT_GE(time_.passed(), milliseconds(180));
  EXPECT_LE(attempts_, 12) << "of 20 ms each";
}

TEST_F(SendAtTheDeadline, DoesNotWaitOnAFullQueue) {
  raw_.post("b", 1);
  EXPECT_FALSE(send());
  takeLockUntil(0);
  EXPECT_FALSE(send());
  EXPECT_EQ(attempts_, 1);
}

TEST(ShmWriterStop, IsSentAtOnceAlthoughTheLockIsTaken) {
  DaemonQueues queues(4096, 4);
  ShmWriter writer("stream", queues.name(), 60, 0, false);
  const QuickTime time;
  lockIsTaken = [attempts = 0]() mutable { return ++attempts <= 3; };
  EXPECT_NO_THROW(writer.stop(true));
  lockIsTaken = nullptr;
  EXPECT_EQ(queues.send().waiting(), 1u);
}
