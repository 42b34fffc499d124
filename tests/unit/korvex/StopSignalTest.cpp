#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include "Failure.h"
#include "StopSignal.h"

namespace {

using korvex::tool::Interrupted;
using korvex::tool::StopSignal;

bool isReadable(int descriptor) {
  pollfd end = {descriptor, POLLIN, 0};
  return ::poll(&end, 1, 0) == 1;
}

}  // namespace

TEST(StopSignal, IsSilentBeforeTheFirstSignal) {
  const StopSignal stop;
  EXPECT_EQ(stop.received(), 0);
  EXPECT_FALSE(isReadable(stop.descriptor()));
  EXPECT_NO_THROW(stop.throwIfReceived());
}

TEST(StopSignal, RemembersTheFirstSignal) {
  StopSignal stop;
  stop.note(SIGTERM);
  stop.note(SIGINT);
  EXPECT_EQ(stop.received(), SIGTERM);
  EXPECT_TRUE(isReadable(stop.descriptor()));
  EXPECT_THROW(stop.throwIfReceived(), Interrupted);
}

TEST(StopSignal, CatchesASignalOnce) {
  StopSignal stop;
  stop.listen();
  ASSERT_EQ(::raise(SIGTERM), 0);
  EXPECT_EQ(stop.received(), SIGTERM);
  for (const int any : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    ASSERT_EQ(::sigaction(any, nullptr, &action), 0);
    EXPECT_TRUE(action.sa_handler == SIG_DFL) << any << " would not end the process";
  }
}

TEST(StopSignal, LeavesAnIgnoredSignalIgnored) {
  ::signal(SIGHUP, SIG_IGN);
  StopSignal stop;
  stop.listen();
  ASSERT_EQ(::raise(SIGHUP), 0);
  EXPECT_EQ(stop.received(), 0);
  ASSERT_EQ(::raise(SIGTERM), 0);
  ASSERT_EQ(::raise(SIGHUP), 0);  // would end the process now
  ::signal(SIGHUP, SIG_DFL);
}
