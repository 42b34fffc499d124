#include <gtest/gtest.h>

#include "korvexd/report/StreamLog.h"

using korvexd::StreamLog;

TEST(StreamLog, KnowsWhetherItsQueueIsServed) {
  StreamLog log("q", std::nullopt);
  EXPECT_TRUE(log.counts().isServed);
  log.queuesLost("removed");
  EXPECT_FALSE(log.counts().isServed);
  log.settingsChanged();
  EXPECT_TRUE(log.counts().isServed);
  log.settingsNotChanged("no memory");
  EXPECT_FALSE(log.counts().isServed);
  log.queuesReplaced();
  EXPECT_TRUE(log.counts().isServed);
}
