#ifndef TESTS_UNIT_ALLOCATION_FAILURES_H
#define TESTS_UNIT_ALLOCATION_FAILURES_H

#include <functional>
#include <gtest/gtest.h>
#include <new>
#include <string>

#include "support/AllocationCounter.h"
#include "support/PlatformDouble.h"

/// What the tests share in which every allocation of an operation fails, one after the other: once
/// alone and once with all that follow it.
namespace korvex::test {

/// Longer than any string that needs no memory of its own.
inline const std::string kLong(100, 'l');

/// What a call did while an allocation failed.
enum class Outcome { BadAlloc, OtherError, Nothing };

inline Outcome outcomeOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::bad_alloc&) {
    return Outcome::BadAlloc;
  } catch (const std::exception&) {
    return Outcome::OtherError;
  }
  return Outcome::Nothing;
}

/// Calls with every allocation failing in turn, and after each failure `checkAfterwards`, with
/// memory again. The number of allocations that failed.
template <typename Call, typename Check>
std::size_t failEach(AllocationFailure::Kind kind, Call call, Check checkAfterwards) {
  const std::function<void()> work = call;
  for (std::size_t number = 1;; ++number) {
    SCOPED_TRACE("allocation " + std::to_string(number));
    const AllocationCounter counter;
    bool happened = false;
    Outcome outcome{};
    {
      const AllocationFailure failure(number, kind);
      outcome = outcomeOf(work);
      happened = failure.happened();
    }
    if (!happened) return number - 1;
    EXPECT_EQ(outcome, Outcome::BadAlloc);
    checkAfterwards(counter);
    if (testing::Test::HasFailure()) return number;
  }
}

class AllocationFailures : public testing::TestWithParam<AllocationFailure::Kind> {
 protected:
  AllocationFailures() { korvex::test::platform_double::reset(); }
  ~AllocationFailures() override { korvex::test::platform_double::reset(); }

  /// For calls that keep nothing, whether they get through or not.
  template <typename Call>
  std::size_t failEachOf(Call call) {
    return failEach(GetParam(), call, [](const AllocationCounter& counter) {
      EXPECT_EQ(counter.kept(), 0) << "leaked";
    });
  }

  /// For calls with an effect that is looked at after each failure.
  template <typename Call, typename Check>
  std::size_t failEachOf(Call call, Check checkAfterwards) {
    return failEach(GetParam(), call, [&](const AllocationCounter& counter) {
      EXPECT_EQ(counter.kept(), 0) << "leaked";
      checkAfterwards();
    });
  }
};

inline std::string nameOf(const testing::TestParamInfo<AllocationFailure::Kind>& info) {
  return info.param == AllocationFailure::Kind::Single ? "Single" : "Lasting";
}

}  // namespace korvex::test

#endif
