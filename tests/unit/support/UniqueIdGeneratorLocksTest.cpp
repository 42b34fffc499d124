#include <array>
#include <cstdlib>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <new>
#include <semaphore.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "korvex/UniqueIdGenerator.h"

// A program of its own: it takes the place of the system's mutex calls and of the allocator, which
// the sanitizers need for themselves.
namespace {

/// What this thread has done to mutexes while `isWatching`. Fixed size: allocating in the middle of
/// a lock would lock again.
struct Watch {
  bool isWatching = false;
  std::size_t used = 0;
  std::array<pthread_mutex_t*, 16> locked{};
  std::size_t unlocked = 0;
};

thread_local Watch watch;
thread_local bool isMemoryShort = false;

/// Two threads that meet inside a lock: one stops with the first lock that it takes, until the
/// other is about to take one.
struct Meeting {
  Meeting() {
    ::sem_init(&hasLock, 0, 0);
    ::sem_init(&mayGoOn, 0, 0);
  }

  sem_t hasLock;
  sem_t mayGoOn;
} meeting;

thread_local bool stopsWithLock = false;
thread_local bool letsOtherGoOn = false;

void letOtherGoOn() {
  if (letsOtherGoOn) ::sem_post(&meeting.mayGoOn);
  letsOtherGoOn = false;
}

void stopWithLock() {
  if (!stopsWithLock) return;
  stopsWithLock = false;
  ::sem_post(&meeting.hasLock);
  ::sem_wait(&meeting.mayGoOn);
}

using MutexCall = int (*)(pthread_mutex_t*);

MutexCall systemCall(const char* name) {
  return reinterpret_cast<MutexCall>(dlsym(RTLD_NEXT, name));
}

std::vector<pthread_mutex_t*> locksTakenIn(void (*work)()) {
  watch = Watch();
  watch.isWatching = true;
  work();
  watch.isWatching = false;
  EXPECT_EQ(watch.unlocked, watch.used);
  return {watch.locked.begin(), watch.locked.begin() + static_cast<std::ptrdiff_t>(watch.used)};
}

bool throwsInShortMemory(korvex::UniqueIdGenerator& generator, const std::string& prefix) {
  bool hasThrown = false;
  isMemoryShort = true;
  try {
    generator.generateId(prefix);
  } catch (const std::bad_alloc&) {
    hasThrown = true;
  }
  isMemoryShort = false;
  return hasThrown;
}

}  // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const MutexCall systemLock = systemCall("pthread_mutex_lock");
  if (watch.isWatching && watch.used < watch.locked.size()) watch.locked[watch.used++] = mutex;
  letOtherGoOn();
  const int result = systemLock(mutex);
  stopWithLock();
  return result;
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static const MutexCall systemUnlock = systemCall("pthread_mutex_unlock");
  if (watch.isWatching) ++watch.unlocked;
  return systemUnlock(mutex);
}

// Not inlined, or the compiler takes the halves of a pair for strangers.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (isMemoryShort) throw std::bad_alloc();
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

TEST(UniqueIdLocks, EveryCallForTheInstanceTakesTheSameLock) {
  const auto callOnce = [] { korvex::UniqueIdGenerator::getInstance(); };
  const std::vector<pthread_mutex_t*> first = locksTakenIn(callOnce);
  const std::vector<pthread_mutex_t*> second = locksTakenIn(callOnce);
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(second, first);
}

TEST(UniqueIdLocks, EveryIdentifierTakesTheLockInsideTheGeneratorOnly) {
  static korvex::UniqueIdGenerator generator;
  auto* const inside = reinterpret_cast<pthread_mutex_t*>(&generator);
  const auto drawTwice = [] {
    generator.generateId("job");
    generator.generateId("job");
  };
  EXPECT_THAT(locksTakenIn(drawTwice), testing::ElementsAre(inside, inside));
}

TEST(UniqueIdLocks, ShortMemoryThrowsInsteadOfCuttingAnIdentifier) {
  korvex::UniqueIdGenerator generator;
  EXPECT_TRUE(throwsInShortMemory(generator, std::string(10000, 'p')));
  auto* const inside = reinterpret_cast<pthread_mutex_t*>(&generator);
  EXPECT_EQ(pthread_mutex_trylock(inside), 0) << "the lock was kept";
  pthread_mutex_unlock(inside);
  EXPECT_EQ(generator.generateId("job"), "job_0") << "a number that was never written is lost";
}

namespace {

/// Draws in a child that is forked while another thread is inside `call` with its lock. 0, or the
/// signal that ended a child which waited forever.
int signalOfChildForkedDuring(void (*call)()) {
  std::thread other([call] {
    stopsWithLock = true;
    call();
  });
  ::sem_wait(&meeting.hasLock);
  letsOtherGoOn = true;
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(10);
    korvex::UniqueIdGenerator::getInstance()->generateId("child");
    ::_exit(0);
  }
  letOtherGoOn();  // a fork that takes no lock has not
  int status = -1;
  ::waitpid(child, &status, 0);
  other.join();
  return WTERMSIG(status);
}

}  // namespace

TEST(UniqueIdLocks, ChildForkedDuringADrawDraws) {
  static korvex::UniqueIdGenerator* const ids = korvex::UniqueIdGenerator::getInstance();
  EXPECT_EQ(signalOfChildForkedDuring([] { ids->generateId("job"); }), 0);
  EXPECT_THAT(ids->generateId("parent"), testing::StartsWith("parent_")) << "the parent goes on";
}

TEST(UniqueIdLocks, ChildForkedDuringACallForTheInstanceDraws) {
  EXPECT_EQ(signalOfChildForkedDuring([] { korvex::UniqueIdGenerator::getInstance(); }), 0);
}

// A thread that draws while it holds the lock of another fork handler would wait for the fork, and
// the fork for it.
TEST(UniqueIdLocks, ForkTakesNoneOfThem) {
  auto* const inside = reinterpret_cast<pthread_mutex_t*>(korvex::UniqueIdGenerator::getInstance());
  const auto ofCall = locksTakenIn([] { korvex::UniqueIdGenerator::getInstance(); });
  const auto ofFork = locksTakenIn([] {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ::waitpid(child, nullptr, 0);
  });
  EXPECT_THAT(ofFork, testing::Not(testing::Contains(inside)));
  EXPECT_THAT(ofFork, testing::Not(testing::Contains(ofCall.at(0))));
}
