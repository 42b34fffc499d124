// The refusal of mixed algorithms is out of every producer's reach, because nothing clears the flag
// in front of it. It must work all the same, should a later writer clear it.

#include <korvex/ShmWriter.h>
#include <string>

#include "korvex/Status.h"
#include "unit/shm/WriterFixture.h"

using korvex::test::DaemonQueues;
using korvex::test::expectError;
using testing::ElementsAre;

namespace {

/// Whether the writer takes its next segment for a stream's first.
bool& firstSegmentOf(korvex::ShmWriter& writer);

/// An explicit instantiation may name a private member; the friend hands it out.
template <bool korvex::ShmWriter::*member>
struct FirstSegment {
  friend bool& firstSegmentOf(korvex::ShmWriter& writer) { return writer.*member; }
};
template struct FirstSegment<&korvex::ShmWriter::firstSegment_>;

class MixedAlgorithms : public korvex::test::Writer {
 protected:
  MixedAlgorithms() { openOn(queues_); }

  /// The next segment is refused, which names these.
  void expectRefusal(int sequence, int lastState, int currentState) {
    expectError(
        korvex::kStatusDoesNotFit,
        "Could not write segment data for sequence " + std::to_string(sequence) +
            " because segment states are not homogeneous (last state=" + std::to_string(lastState) +
            ", current state=" + std::to_string(currentState) + ")",
        [this] { writer().writeSegment(data_.data(), 3); });
  }

  DaemonQueues queues_;
};

}  // namespace

TEST_F(MixedAlgorithms, AreRefusedWithBothStatesAndTheNextSequence) {
  writer().writeSegment(data_.data(), 3);
  firstSegmentOf(writer()) = false;
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 0, 0, 0);
  expectRefusal(3, 0, 1);
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
  expectRefusal(4, 1, 0);
}

TEST_F(MixedAlgorithms, AreComparedWithAnEmptySegmentToo) {
  writer().setSegmentAlg(KORVEX_SEG_STATE_UNLIMITED, 0, 0, 0);
  writer().writeSegment(nullptr, 0);
  firstSegmentOf(writer()) = false;
  writer().writeSegment(data_.data(), 3);
  writer().setSegmentAlg(KORVEX_SEG_STATE_LIMITED, 0, 0, 0);
  expectRefusal(4, 1, 0);
}
