// What is left of one stream when its writer is destroyed or begins another.

#include "unit/shm/WriterFixture.h"

using korvex::ShmWriter;
using korvex::test::DaemonQueues;
using testing::ElementsAre;

namespace {

/// A writer that gives its stream up without a record, as a derived one may.
class GivingUpWriter : public ShmWriter {
 public:
  using ShmWriter::ShmWriter;

  void giveUp() { isOpen = false; }
};

using WriterEndings = korvex::test::Writer;

}  // namespace

TEST_F(WriterEndings, ClosedWriterIsDestroyedWithoutAnotherClose) {
  DaemonQueues queues;
  connect(queues);
  korvex::test::platform_double::setTracing(true);
  destroyWriter();
  EXPECT_THAT(korvex::test::platform_double::traceLines(),
              ElementsAre("~ShmWriter: enter", "~ShmWriter: leave"));
}

TEST_F(WriterEndings, NextStreamStartsFreshAfterAnAbandonedOne) {
  DaemonQueues queues;
  GivingUpWriter writer("stream", queues.name(), 60, 60, false);
  writer.open();
  queues.takeBatch();
  writer.writeSegment(data_.data(), 3);
  writer.giveUp();
  writer.open();
  EXPECT_THAT(korvex::test::headersOf(queues.takeBatch()),
              ElementsAre("(2,1,3,0,0,0,0,0,0,2864434397)", "(0,0,0,0,0,1,0,0,0,2864434397)"));
}
