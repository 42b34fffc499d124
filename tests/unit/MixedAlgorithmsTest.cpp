// The refusal of mixed algorithms is out of every producer's reach, because nothing clears the flag
// in front of it. It must work all the same, should a later writer clear it.

#include "unit/FirstSegment.h"
#include "unit/WriterFixture.h"

using korvex_test::DaemonQueues;
using testing::ElementsAre;
using writer_test::expectError;

namespace {

class MixedAlgorithms : public writer_test::Writer {
 protected:
  MixedAlgorithms() { openOn(queues_); }

  DaemonQueues queues_;
};

}  // namespace

TEST_F(MixedAlgorithms, AreRefusedWithBothStatesAndTheNextSequence) {
  writer().writeSegment(data_.data(), 3);
  firstSegmentOf(writer()) = false;
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 0, 0, 0);
  expectError(89,
              "Could not write segment data for sequence 3 because segment states are not "
              "homogeneous (last state=0, current state=1)",
              [this] { writer().writeSegment(data_.data(), 3); });
  writer().setSegmentAlg(KORVEX_SEG_STATE_LIMITED, 0, 0, 0);
  writer().writeSegment(data_.data(), 3);
  EXPECT_THAT(flushedHeaders(queues_),
              ElementsAre("(2,1,3,0,0,0,0,0,0,2864434397)", "(3,1,3,0,0,0,0,0,0,2864434397)"))
      << "the refused call changed nothing";
}

TEST_F(MixedAlgorithms, AreNoConcernOfASegmentsEnd) {
  writer().writeSegment(data_.data(), 3);
  firstSegmentOf(writer()) = false;
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 0, 0, 0);
  writer().endSegment();
  EXPECT_THAT(flushedHeaders(queues_),
              ElementsAre("(2,1,3,0,0,0,0,0,0,2864434397)", "(3,2,0,1,0,0,0,0,0,2864434397)"));
}

TEST_F(MixedAlgorithms, AreComparedWithTheLastSegmentThatWasWritten) {
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 0, 0, 0);
  writer().writeSegment(data_.data(), 3);
  firstSegmentOf(writer()) = false;
  writer().writeSegment(data_.data(), 3);
  writer().setSegmentAlg(KORVEX_SEG_STATE_LIMITED, 0, 0, 0);
  expectError(89,
              "Could not write segment data for sequence 4 because segment states are not "
              "homogeneous (last state=1, current state=0)",
              [this] { writer().writeSegment(data_.data(), 3); });
}
