#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmx/trace.h>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include "korvex/Logger.h"
#include "support/PlatformDouble.h"

using namespace korvex::server;

namespace {

/// What the platform is handed: the raw format, not what it would make of it.
MATCHER_P3(Handed, function, code, format, "") {
  return arg.function == function && arg.code == code && arg.format == format;
}

class LoggerTest : public testing::Test {
 protected:
  void SetUp() override { korvex::test::platform_double::reset(); }
  void TearDown() override { korvex::test::platform_double::reset(); }

  Logger logger{"Reader"};
  Logger nameless{""};
};

using LoggerLog = LoggerTest;
using LoggerTrace = LoggerTest;

}  // namespace

namespace korvex::test::platform_double {
void PrintTo(const Call& call, std::ostream* stream) {
  *stream << call.function << "(" << call.code << ", \"" << call.format << "\")";
}
}  // namespace korvex::test::platform_double

using korvex::test::platform_double::calls;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(LoggerType, HasTheOperationsThatCallersWereBuiltWith) {
  static_assert(!std::is_polymorphic<Logger>::value, "nothing overrides it");
  static_assert(std::is_same<decltype(&Logger::trimFunctionName),
                             std::string (Logger::*)(const std::string&)>::value,
                "not const, as none is");
  static_assert(std::is_same<std::underlying_type<KorvxServerLoglevel>::type, std::int32_t>::value,
                "takes any number");
  EXPECT_EQ(LOGLEVEL_INFO, 1);
  EXPECT_EQ(LOGLEVEL_AUTH, 2);
  EXPECT_EQ(LOGLEVEL_WARNING, 3);
  EXPECT_EQ(LOGLEVEL_ERROR, 4);
}

TEST_F(LoggerLog, PutsComponentAndFunctionInFrontOfTheMessage) {
  logger.log(LOGLEVEL_WARNING, "open", 12, "fd=%d", 7);
  EXPECT_THAT(calls(), ElementsAre(Handed("WarningA", 12, "Reader::open: fd=7")));
}

TEST_F(LoggerLog, EveryLevelHasItsOwnCall) {
  logger.log(LOGLEVEL_INFO, "f", 1, "i");
  logger.log(LOGLEVEL_AUTH, "f", -1, "a");
  logger.log(LOGLEVEL_WARNING, "f", 0, "w");
  logger.log(LOGLEVEL_ERROR, "f", 2147483647, "e");
  EXPECT_THAT(calls(),
              ElementsAre(Handed("InfoA", 1, "Reader::f: i"), Handed("AuthA", -1, "Reader::f: a"),
                          Handed("WarningA", 0, "Reader::f: w"),
                          Handed("ErrorA", 2147483647, "Reader::f: e")));
}

TEST_F(LoggerLog, UnknownLevelsWriteNothing) {
  for (const int level : {0, 5, -1, 2147483647}) {
    logger.log(static_cast<KorvxServerLoglevel>(level), "f", 1, "lost");
  }
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(LoggerLog, WithoutAComponentNameStartsWithTheFunction) {
  nameless.log(LOGLEVEL_INFO, "open", 1, "done");
  EXPECT_THAT(calls(), ElementsAre(Handed("InfoA", 1, "open: done")));
}

TEST_F(LoggerLog, EmptyNamesAndMessagesKeepTheirSeparators) {
  logger.log(LOGLEVEL_INFO, "", 1, "%s", "");
  EXPECT_THAT(calls(), ElementsAre(Handed("InfoA", 1, "Reader::: ")));
}

TEST_F(LoggerLog, KeepsItsOwnCopyOfTheName) {
  std::string name = "Reader";
  Logger copying(name);
  name = "changed";
  copying.log(LOGLEVEL_INFO, "f", 1, "m");
  EXPECT_THAT(calls(), ElementsAre(Handed("InfoA", 1, "Reader::f: m")));
}

TEST_F(LoggerLog, WritesAMessageOf4095CharactersWhole) {
  const std::string longest(4095, 'm');
  logger.log(LOGLEVEL_INFO, "f", 1, "%s", longest.c_str());
  EXPECT_THAT(calls(), ElementsAre(Handed("InfoA", 1, "Reader::f: " + longest)));
}

TEST_F(LoggerLog, CutsALongerMessageAndLeavesNamesWhole) {
  const std::string component(5000, 'c');
  const std::string function(5000, 'f');
  const std::string message = std::string(4095, 'm') + "x";
  Logger(component).log(LOGLEVEL_INFO, function.c_str(), 1, "%s", message.c_str());
  EXPECT_THAT(
      calls(),
      ElementsAre(Handed("InfoA", 1, component + "::" + function + ": " + std::string(4095, 'm'))));
}

TEST_F(LoggerLog, HandsTheLineOverAsTheFormat) {
  logger.log(LOGLEVEL_ERROR, "f", 1, "100%%");
  EXPECT_THAT(calls(), ElementsAre(Handed("ErrorA", 1, "Reader::f: 100%")));
}

TEST_F(LoggerLog, FourPercentSignsAreOneInTheLog) {
  Logger percent("50%%");
  percent.log(LOGLEVEL_INFO, "f", 1, "100%%%%");
  ASSERT_EQ(calls().size(), 1u);
  EXPECT_EQ(calls()[0].format, "50%%::f: 100%%");
  EXPECT_EQ(calls()[0].text, "50%::f: 100%");
}

TEST_F(LoggerLog, PercentSignsInNamesReachThePlatformUnchanged) {
  Logger("a%").log(LOGLEVEL_INFO, "b%%", 1, "m");
  EXPECT_THAT(calls(), ElementsAre(Handed("InfoA", 1, "a%::b%%: m")));
}

TEST_F(LoggerLog, IgnoresAFormatterThatFails) {
  logger.log(LOGLEVEL_INFO, "f", 1, "before %lc after", static_cast<wint_t>(0x7fffffff));
  EXPECT_THAT(calls(), ElementsAre(Handed("InfoA", 1, "Reader::f: before ")));
}

TEST_F(LoggerLog, RefusesANullFunctionNameAndWritesNothing) {
  EXPECT_THROW(logger.log(LOGLEVEL_ERROR, nullptr, 1, "m"), std::logic_error);
  EXPECT_THROW(nameless.log(LOGLEVEL_ERROR, nullptr, 1, "m"), std::logic_error);
  EXPECT_THROW(logger.log(static_cast<KorvxServerLoglevel>(0), nullptr, 1, "m"), std::logic_error);
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(LoggerLog, DoesNotAskWhetherTracingIsOn) {
  logger.log(LOGLEVEL_INFO, "f", 1, "m");
  EXPECT_EQ(korvex::test::platform_double::flagReads(), 0u);
}

TEST_F(LoggerLog, ServesManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this] { logger.log(LOGLEVEL_INFO, "f", 3, "n=%d", 4); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(calls().size(), 8u);
  EXPECT_THAT(calls(), testing::Each(Handed("InfoA", 3, "Reader::f: n=4")));
}

TEST_F(LoggerTrace, WritesTheSameLineWhileTracingIsOn) {
  korvex::test::platform_double::setTracing(true);
  logger.logTrace("open", "fd=%d", 7);
  nameless.logTrace("open", "fd=%d", 8);
  EXPECT_THAT(calls(), ElementsAre(Handed("__TraceA", 0, "Reader::open: fd=7"),
                                   Handed("__TraceA", 0, "open: fd=8")));
}

TEST_F(LoggerTrace, AnyFlagButZeroIsOn) {
  *__qmxlog_trace_location() = 0x80000000u;
  logger.logTrace("open", "m");
  EXPECT_EQ(calls().size(), 1u);
}

TEST_F(LoggerTrace, FormatsNothingWhileTracingIsOff) {
  int formatted = -1;
  logger.logTrace("open", "abc%n", &formatted);
  EXPECT_EQ(formatted, -1);
  EXPECT_EQ(korvex::test::platform_double::flagReads(), 1u);
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(LoggerTrace, ReadsTheFlagTwiceWhileTracingIsOn) {
  korvex::test::platform_double::setTracing(true);
  logger.logTrace("open", "m");
  EXPECT_EQ(korvex::test::platform_double::flagReads(), 2u);
}

TEST_F(LoggerTrace, DropsTheLineWhenTracingEndsMeanwhile) {
  korvex::test::platform_double::setTracing(true);
  korvex::test::platform_double::switchOffAtFlagRead(2);
  int formatted = -1;
  logger.logTrace("open", "abc%n", &formatted);
  EXPECT_EQ(formatted, 3);
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(LoggerTrace, TakesANullNameOnlyWhileTracingIsOff) {
  EXPECT_NO_THROW(logger.logTrace(nullptr, "m"));
  korvex::test::platform_double::setTracing(true);
  EXPECT_THROW(logger.logTrace(nullptr, "m"), std::logic_error);
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(LoggerTrace, CutsAndHandsOverAsLogDoes) {
  korvex::test::platform_double::setTracing(true);
  logger.logTrace("f%", "%s", std::string(5000, 'm').c_str());
  EXPECT_THAT(calls(), ElementsAre(Handed("__TraceA", 0, "Reader::f%: " + std::string(4095, 'm'))));
}

TEST_F(LoggerTest, TrimmingAFunctionNameRemovesNothing) {
  for (const char* const name : {"", "open", "korvex::Reader::open(const std::string&, int)",
                                 "  spaces  ", "void f<int>() const"}) {
    EXPECT_EQ(logger.trimFunctionName(name), name);
  }
}
