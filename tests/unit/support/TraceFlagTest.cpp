#include <gtest/gtest.h>

#include "support/PlatformDouble.h"
#include "support/Trace.h"

using korvex::isKnownUntraced;
using korvex::isTracing;

namespace {

class TraceFlag : public testing::Test {
 protected:
  TraceFlag() {
    korvex::test::platform_double::reset();
    korvex::knownTraceFlag = nullptr;
  }
  ~TraceFlag() override { korvex::test::platform_double::reset(); }
};

}  // namespace

TEST_F(TraceFlag, IsNotKnownBeforeSomebodyAsks) {
  EXPECT_FALSE(isKnownUntraced());
  EXPECT_FALSE(isTracing());
  EXPECT_TRUE(isKnownUntraced());
}

TEST_F(TraceFlag, IsReadAnewEachTime) {
  isTracing();
  korvex::test::platform_double::setTracing(true);
  EXPECT_FALSE(isKnownUntraced());
  EXPECT_TRUE(isTracing());
  korvex::test::platform_double::setTracing(false);
  EXPECT_TRUE(isKnownUntraced());
  EXPECT_FALSE(isTracing());
}
