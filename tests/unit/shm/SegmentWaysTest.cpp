// Most segments take a short way into the batch. Whichever way one takes, the same comes of it.

#include "korvex/Status.h"
#include "unit/shm/WriterFixture.h"

using korvex::test::DaemonQueues;
using korvex::test::expectError;
using testing::ElementsAre;

namespace {

constexpr std::size_t kRoomForEverything = 400000;

class SegmentWays : public korvex::test::Writer {
 protected:
  SegmentWays() { openOn(queues_); }

  DaemonQueues queues_{kRoomForEverything};
};

}  // namespace

TEST_F(SegmentWays, OversizedSegmentIsRefusedAlsoWhereItHasRoom) {
  writer().writeSegment(data_.data(), 131072);
  expectError(korvex::kStatusTooLarge,
              "Segment too large error.  Received segment of size 131073 bytes, but the maximum "
              "allowed segment size is 131072 bytes",
              [this] { writer().writeSegment(data_.data(), 131073); });
  EXPECT_THAT(flushedHeaders(queues_), ElementsAre("(2,1,131072,0,0,0,0,0,0,2864434397)"));
}

TEST_F(SegmentWays, UnlimitedSegmentMayBeAsLargeAsTheRoom) {
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 0, 0, 0);
  writer().writeSegment(data_.data(), 131073);
  EXPECT_THAT(flushedHeaders(queues_), ElementsAre("(2,1,131073,1,0,0,0,0,0,2864434397)"));
}

TEST_F(SegmentWays, EverySegmentCanBeEnded) {
  for (int segment = 0; segment < 2; ++segment) {
    writer().writeSegment(data_.data(), 3);
    writer().endSegment();
  }
  EXPECT_THAT(flushedHeaders(queues_),
              ElementsAre("(2,1,3,0,0,0,0,0,0,2864434397)", "(3,2,0,0,0,0,0,0,0,2864434397)",
                          "(4,1,3,0,1,0,0,0,0,2864434397)", "(5,2,0,0,1,0,0,0,0,2864434397)"));
}
