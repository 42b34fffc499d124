// What the daemon makes of streams that a producer could not finish.

#include <gmock/gmock.h>
#include <korvex/StreamGuard.h>
#include <stdexcept>

#include "integration/DaemonFixture.h"

using korvex::StreamGuard;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

/// Streams half of its data, then fails.
class FailingProducer : public DaemonFixture {
 protected:
  void fail(korvex::ShmWriter& to) const {
    to.open();
    const StreamGuard guard(to);
    write(to, "half");
    throw std::runtime_error("the disk went away");
  }
};

}  // namespace

TEST_F(FailingProducer, LeavesAnIncompleteStreamToItsGuard) {
  const auto daemon = start();
  {
    const auto to = writer();  // its destructor closes once more, behind the stop
    EXPECT_THROW(fail(*to), std::runtime_error);
  }
  EXPECT_THAT(stream("whole"), StartsWith("stored bytes=5 "));  // everything before was taken
  EXPECT_THAT(streams(false), SizeIs(1));
  ASSERT_THAT(streams(true), SizeIs(1));
  EXPECT_EQ(manifestOf(streams(true).front())["reason"], "stopped by the producer");
  end(*daemon);
}

TEST_F(FailingProducer, StopsNoStreamThatItsGuardClosed) {
  const auto daemon = start();
  const auto to = writer();
  to->open();
  {
    StreamGuard guard(*to);
    write(*to, "whole");
    guard.close();
  }
  EXPECT_THAT(awaitReply(*to).message, StartsWith("stored bytes=5 "));
  EXPECT_THAT(streams(true), IsEmpty());
  end(*daemon);
}

// The stop finds no room, and the destructor's close may: the daemon must see that something is
// missing between the data and the close.
TEST_F(FailingProducer, CompletesNothingWhenItsStopFoundNoRoom) {
  const auto daemon = start({"--max-messages", "1", "--max-message-size", "160"});
  {
    const auto to = writer(queue_, 1);
    to->open();
    ASSERT_TRUE(korvex::test::eventually([this] { return streams(true).size() == 1; }));
    daemon->freeze();
    {
      const StreamGuard guard(*to);
      to->flush_shm_buffer(kTimeout);  // takes the only place
      to->writeSegment(reinterpret_cast<const unsigned char*>("half"), 4);
      to->endSegment();  // the batch has no room for a third record
    }
    daemon->signal(SIGCONT);
    to->flush_shm_buffer(kTimeout);
  }
  EXPECT_THAT(stream("whole"), StartsWith("stored bytes=5 "));
  EXPECT_THAT(streams(false), SizeIs(1));
  EXPECT_THAT(streams(true), SizeIs(1));
  end(*daemon);
}
