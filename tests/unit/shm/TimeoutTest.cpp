#include <gtest/gtest.h>

#include "korvex/ShmWriter.h"
#include "korvex/Status.h"
#include "support/DaemonQueues.h"
#include "support/PlatformDouble.h"
#include "support/ThrownError.h"

using korvex::validateTimeout;

TEST(ValidateTimeout, AcceptsOneSecondToOneDay) {
  EXPECT_NO_THROW(validateTimeout(1));
  EXPECT_NO_THROW(validateTimeout(2));
  EXPECT_NO_THROW(validateTimeout(86399));
  EXPECT_NO_THROW(validateTimeout(86400));
}

TEST(ValidateTimeout, RefusesZero) {
  EXPECT_EQ(thrownBy([] { validateTimeout(0); }),
            (ThrownError{korvex::kStatusInvalidArgument,
                         "Invalid timeout, specified value 0 was less than minimum allowed value "
                         "of 1"}));
}

TEST(ValidateTimeout, RefusesOneSecondMoreThanADay) {
  EXPECT_EQ(thrownBy([] { validateTimeout(86401); }),
            (ThrownError{korvex::kStatusInvalidArgument,
                         "Invalid timeout, specified value 86401 was more than maximum allowed "
                         "value of 86400"}));
}

TEST(ValidateTimeout, ReportsTheLargestValueUnsigned) {
  EXPECT_EQ(thrownBy([] { validateTimeout(4294967295); }),
            (ThrownError{korvex::kStatusInvalidArgument,
                         "Invalid timeout, specified value 4294967295 was more than maximum "
                         "allowed value of 86400"}));
}

TEST(ValidateTimeout, TracesNothing) {
  korvex::test::platform_double::reset();
  korvex::test::platform_double::setTracing(true);
  EXPECT_THROW(validateTimeout(0), Ov_ErrnoException);
  validateTimeout(1);
  EXPECT_TRUE(korvex::test::platform_double::calls().empty());
  korvex::test::platform_double::reset();
}

// A queue that was touched would be missed, with an error of the queue library.
TEST(ValidateTimeout, IsAskedBeforeAnyQueueIsTouched) {
  EXPECT_EQ(
      thrownBy([] { korvex::ShmWriter("stream", "korvex-no-such-queue", 0, 0, false); }).message,
      "Invalid timeout, specified value 0 was less than minimum allowed value of 1");
}

TEST(ValidateTimeout, IsNotAskedAboutTheStopTimeout) {
  korvex::test::DaemonQueues queues;
  EXPECT_NO_THROW(korvex::ShmWriter("stream", queues.name(), 1, 0, false));
  EXPECT_NO_THROW(korvex::ShmWriter("stream", queues.name(), 86400, 4294967295, false));
}
