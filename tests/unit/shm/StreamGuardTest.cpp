// What a guard sends for its stream, and for which stream.

#include "korvex/StreamGuard.h"
#include "unit/shm/WriterFixture.h"

using korvex::StreamGuard;
using korvex::test::DaemonQueues;
using korvex::test::headersOf;
using testing::ElementsAre;

using StreamGuardRecords = korvex::test::Writer;

TEST_F(StreamGuardRecords, StopIsSentForAnOpenStream) {
  DaemonQueues queues;
  openOn(queues);
  { const StreamGuard guard(writer()); }
  EXPECT_THAT(headersOf(queues.takeBatch()), ElementsAre("(2,4,0,0,0,1,0,0,0,2864434397)"));
}

TEST_F(StreamGuardRecords, GuardOfAClosedStreamLeavesTheNextAlone) {
  DaemonQueues queues;
  openOn(queues);
  {
    StreamGuard guard(writer());
    guard.close();
    queues.takeBatch();
    writer().open();
    queues.takeBatch();
  }
  EXPECT_EQ(queues.send().waiting(), 0u);
}
