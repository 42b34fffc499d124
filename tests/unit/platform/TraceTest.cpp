#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmx/sink.h>
#include <qmx/trace.h>
#include <thread>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Trace : public testing::Test {
 protected:
  Trace() {
    qmx::logToCallback([this](const qmx::Line& line) { texts_.push_back(line.text); });
  }
  ~Trace() override {
    qmx::setTracing(false);
    qmx::logToStandardError();
  }

  std::vector<std::string> texts_;
};

TEST_F(Trace, IsOffAtFirst) { EXPECT_EQ(*__qmxlog_trace_location(), 0u); }

TEST_F(Trace, SetTracingSetsTheFlag) {
  qmx::setTracing(true);
  EXPECT_EQ(*__qmxlog_trace_location(), 1u);
  qmx::setTracing(false);
  EXPECT_EQ(*__qmxlog_trace_location(), 0u);
}

TEST_F(Trace, FlagStaysInItsPlace) {
  const std::uint32_t* const place = __qmxlog_trace_location();
  qmx::setTracing(true);
  EXPECT_EQ(__qmxlog_trace_location(), place);
}

TEST_F(Trace, FlagIsOneForAllThreads) {
  const std::uint32_t* elsewhere = nullptr;
  std::thread([&elsewhere] { elsewhere = __qmxlog_trace_location(); }).join();
  EXPECT_EQ(elsewhere, __qmxlog_trace_location());
}

TEST_F(Trace, LineIsWrittenWhateverTheFlagSays) {
  __TraceA("%s: size=%u", "part", 7u);
  EXPECT_THAT(texts_, ElementsAre("part: size=7"));
}

TEST_F(Trace, ScopeTellsThatItIsEnteredAndLeft) {
  qmx::setTracing(true);
  {
    const AutoTrace trace("open");
    EXPECT_THAT(texts_, ElementsAre("open: enter"));
  }
  EXPECT_THAT(texts_, ElementsAre("open: enter", "open: leave"));
}

TEST_F(Trace, ScopeIsSilentWhileTracingIsOff) {
  { const AutoTrace trace("open"); }
  EXPECT_THAT(texts_, IsEmpty());
}

TEST_F(Trace, ScopeThatWasEnteredUntracedIsLeftUntraced) {
  {
    const AutoTrace trace("open");
    qmx::setTracing(true);
  }
  EXPECT_THAT(texts_, IsEmpty());
}

TEST_F(Trace, ScopeThatWasEnteredTracedIsLeftTraced) {
  qmx::setTracing(true);
  {
    const AutoTrace trace("open");
    qmx::setTracing(false);
  }
  EXPECT_THAT(texts_, ElementsAre("open: enter", "open: leave"));
}

}  // namespace
