#include "korvex/UniqueIdGenerator.h"

#include <dlfcn.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <new>
#include <vector>

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
  return systemLock(mutex);
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
  EXPECT_EQ(generator.generateId("job"), "job_1") << "a number is lost rather than given twice";
}
