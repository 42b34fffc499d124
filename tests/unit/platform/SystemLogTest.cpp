#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmx/log.h>
#include <qmx/sink.h>

#include "unit/platform/SyslogDouble.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SystemLog : public testing::Test {
 protected:
  SystemLog() {
    qmx::logToSystemLog("producer");
    korvex::test::syslog_double::take();
  }
  ~SystemLog() override { qmx::logToStandardError(); }
};

TEST_F(SystemLog, IsOpenedWithIdentityAndProcessId) {
  InfoA(7, "hello");
  EXPECT_THAT(korvex::test::syslog_double::take(),
              ElementsAre("open producer option=1 facility=8", "6: INFO code=7 hello"));
}

TEST_F(SystemLog, LevelsBecomePriorities) {
  InfoA(1, "a");
  korvex::test::syslog_double::take();
  AuthA(2, "b");
  WarningA(3, "c");
  ErrorA(4, "d");
  __TraceA("e");
  EXPECT_THAT(korvex::test::syslog_double::take(),
              ElementsAre("6: AUTH code=2 b", "4: WARNING code=3 c", "3: ERROR code=4 d",
                          "7: TRACE code=0 e"));
}

TEST_F(SystemLog, LineEndsAreEscaped) {
  InfoA(1, "a\nb");
  EXPECT_THAT(korvex::test::syslog_double::take(), ElementsAre(testing::_, "6: INFO code=1 a\\nb"));
}

TEST_F(SystemLog, IsClosedWhenItIsReplaced) {
  InfoA(1, "a");
  korvex::test::syslog_double::take();
  qmx::logToStandardError();
  EXPECT_THAT(korvex::test::syslog_double::take(), ElementsAre("close"));
}

TEST_F(SystemLog, KeepsTheNewIdentityWhenItReplacesItself) {
  InfoA(1, "a");
  korvex::test::syslog_double::take();
  qmx::logToSystemLog("other");
  InfoA(2, "b");
  EXPECT_THAT(korvex::test::syslog_double::take(),
              ElementsAre("close", "open other option=1 facility=8", "6: INFO code=2 b"));
}

TEST_F(SystemLog, IsLeftAloneWithoutLines) {
  qmx::logToStandardError();
  EXPECT_THAT(korvex::test::syslog_double::take(), IsEmpty());
}

}  // namespace
