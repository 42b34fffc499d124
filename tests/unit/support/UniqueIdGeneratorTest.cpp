#include <cstring>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <locale>
#include <set>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include "korvex/UniqueIdGenerator.h"
#include "support/PlatformDouble.h"

using korvex::UniqueIdGenerator;

namespace {

constexpr unsigned kThreads = 8;

/// Sets the next number of a generator, since nobody can wait for 2^32 of them. The place is known:
/// the mutex and the counter, in this order, are the object's layout in the binary interface, so
/// the test needs no door of its own in the public header and sees it when the layout changes.
void setNextNumber(UniqueIdGenerator& generator, std::uint32_t number) {
  static_assert(std::is_standard_layout<UniqueIdGenerator>::value, "the first member comes first");
  static_assert(sizeof(UniqueIdGenerator) == sizeof(pthread_mutex_t) + 8,
                "the mutex, 4 bytes of counter, 4 of padding");
  unsigned char* const object = reinterpret_cast<unsigned char*>(&generator);
  std::memcpy(object + sizeof(pthread_mutex_t), &number, sizeof number);
}

std::vector<std::string> draw(UniqueIdGenerator& generator, unsigned count) {
  std::vector<std::string> ids;
  ids.reserve(count);
  while (ids.size() < count) ids.push_back(generator.generateId("t"));
  return ids;
}

/// Calls `work(thread number)` in several threads at once and waits for all.
template <typename Work>
void inThreads(Work work) {
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
}

/// Thousands in groups, as many countries write them.
class GroupedDigits : public std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

/// Makes a locale the process's global one for a scope.
class GlobalLocale {
 public:
  explicit GlobalLocale(const std::locale& locale) : before_(std::locale::global(locale)) {}
  ~GlobalLocale() { std::locale::global(before_); }
  GlobalLocale(const GlobalLocale&) = delete;
  GlobalLocale& operator=(const GlobalLocale&) = delete;

 private:
  std::locale before_;
};

UniqueIdGenerator* generatorOf(const char* modulePath) {
  void* const module = dlopen(modulePath, RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) throw std::runtime_error(dlerror());
  const auto function =
      reinterpret_cast<UniqueIdGenerator* (*)()>(dlsym(module, "generatorOfModule"));
  if (function == nullptr) throw std::runtime_error(dlerror());
  return function();
}

}  // namespace

TEST(UniqueIds, CountFromZeroAcrossAllPrefixes) {
  UniqueIdGenerator generator;
  EXPECT_EQ(generator.generateId("job"), "job_0");
  EXPECT_EQ(generator.generateId("job"), "job_1");
  EXPECT_EQ(generator.generateId("x"), "x_2");
}

TEST(UniqueIds, TakeAnyPrefixAsItIs) {
  UniqueIdGenerator generator;
  EXPECT_EQ(generator.generateId(""), "_0");
  EXPECT_EQ(generator.generateId("a_b_"), "a_b__1");
  EXPECT_EQ(generator.generateId(std::string("a\0b%s\n", 6)), std::string("a\0b%s\n_2", 8));
}

TEST(UniqueIds, WrapToZeroAfterTheLargestNumber) {
  UniqueIdGenerator generator;
  setNextNumber(generator, 4294967294u);
  EXPECT_EQ(generator.generateId("job"), "job_4294967294");
  EXPECT_EQ(generator.generateId("job"), "job_4294967295");
  EXPECT_EQ(generator.generateId("job"), "job_0");
  EXPECT_EQ(generator.generateId("job"), "job_1");
}

TEST(UniqueIds, ArePlainDigitsUnderAnyGlobalLocale) {
  UniqueIdGenerator generator;
  setNextNumber(generator, 1234567);
  const GlobalLocale grouped(std::locale(std::locale::classic(), new GroupedDigits));
  EXPECT_EQ(generator.generateId("job"), "job_1234567");
}

TEST(UniqueIds, LeaveNoTraceLines) {
  korvex::test::platform_double::reset();
  korvex::test::platform_double::setTracing(true);
  UniqueIdGenerator::getInstance()->generateId("job");
  EXPECT_THAT(korvex::test::platform_double::calls(), testing::IsEmpty());
  korvex::test::platform_double::reset();
}

TEST(UniqueIds, DrawnByManyThreadsAreEveryNumberOnce) {
  constexpr unsigned kEach = 2000;
  UniqueIdGenerator generator;
  std::vector<std::vector<std::string>> drawn(kThreads);
  inThreads([&](unsigned i) { drawn[i] = draw(generator, kEach); });

  std::set<std::string> distinct;
  for (const auto& ids : drawn) distinct.insert(ids.begin(), ids.end());
  std::set<std::string> expected;
  for (unsigned i = 0; i < kThreads * kEach; ++i) expected.insert("t_" + std::to_string(i));
  EXPECT_EQ(distinct, expected);
}

TEST(UniqueIdInstance, IsTheSameForEveryCallAndThread) {
  std::vector<UniqueIdGenerator*> seen(kThreads);
  inThreads([&](unsigned i) { seen[i] = UniqueIdGenerator::getInstance(); });
  EXPECT_THAT(seen, testing::Each(UniqueIdGenerator::getInstance()));
  EXPECT_NE(seen[0], nullptr);
}

TEST(UniqueIdInstance, IsSharedByAllLoadedComponents) {
  UniqueIdGenerator* const first = generatorOf(KORVEX_FIRST_MODULE);
  UniqueIdGenerator* const second = generatorOf(KORVEX_SECOND_MODULE);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first, UniqueIdGenerator::getInstance());
}

TEST(UniqueIdInstance, CannotBeCopied) {
  static_assert(!std::is_copy_constructible<UniqueIdGenerator>::value, "would copy a mutex");
  static_assert(!std::is_copy_assignable<UniqueIdGenerator>::value, "would copy a mutex");
  static_assert(!std::is_polymorphic<UniqueIdGenerator>::value, "nothing overrides it");
}
