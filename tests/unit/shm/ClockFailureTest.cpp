// The system cannot convert the calendar's time: deadlines are counted from it, so that nothing can
// be sent then, and nothing may be lost either.

#include <ctime>
#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>

#include "korvex/ShmWriter.h"
#include "korvex/Status.h"
#include "support/Bytes.h"
#include "support/DaemonQueues.h"
#include "support/ThrownError.h"

using korvex::ShmWriter;

namespace {

constexpr unsigned kTimeout = 60;

/// The conversion that fails, with all after it (1 is the next); 0 for none.
unsigned firstToFail = 0;
unsigned conversions = 0;

}  // namespace

/// In place of the system's function.
extern "C" std::tm* gmtime_r(const std::time_t* time, std::tm* result) noexcept {
  ++conversions;
  if (firstToFail != 0 && conversions >= firstToFail) return nullptr;
  using Function = std::tm*(const std::time_t*, std::tm*);
  static auto* const systems = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, "gmtime_r"));
  return systems(time, result);
}

namespace {

/// While it lives, the clock's conversions fail.
class FailingClock {
 public:
  explicit FailingClock(unsigned from) {
    conversions = 0;
    firstToFail = from;
  }
  ~FailingClock() { firstToFail = 0; }
  FailingClock(const FailingClock&) = delete;
  FailingClock& operator=(const FailingClock&) = delete;

  bool hasFailed() const { return conversions >= firstToFail; }
};

/// What a call throws; errors of another kind pass and fail the test.
std::string runtimeErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "(nothing was thrown)";
}

const std::string kClockError = "could not convert calendar time to UTC time";

class ClockFailure : public testing::Test {
 protected:
  void openWriter() {
    writer_->open();
    queues_.takeBatch();
  }

  void writeSegment(const std::string& text = "abc") {
    writer_->writeSegment(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  }

  std::string flushedBatch() {
    writer_->flush_shm_buffer(kTimeout);
    return hexOf(queues_.takeBatch());
  }

  const std::string segment_ =
      hex("00000001 00000003 0000000000000002 0000000000000000 00000000 00000000 00000000 00000000 "
          "00000000 aabbccdd 616263");
  korvex::test::DaemonQueues queues_{200};
  std::unique_ptr<ShmWriter> writer_ =
      std::make_unique<ShmWriter>("stream", queues_.name(), kTimeout, kTimeout, false);
};

/// A send converts twice before it looks at the queue: for its deadline, and for what is left until
/// then. Depending on its release, the queue library converts as well.
class WithoutClock : public ClockFailure, public testing::WithParamInterface<unsigned> {
 protected:
  void expectClockError(const std::function<void()>& call) const {
    const FailingClock clock(GetParam());
    EXPECT_EQ(runtimeErrorOf(call), kClockError);
    EXPECT_TRUE(clock.hasFailed());
  }
};

INSTANTIATE_TEST_SUITE_P(Conversion, WithoutClock, testing::Values(1u, 2u));

}  // namespace

// Even one that fails behind the send, when the reply is looked for.
TEST_F(ClockFailure, OfAnyConversionNeitherLosesNorRepeatsABatch) {
  for (unsigned conversion = 1;; ++conversion) {
    SCOPED_TRACE("conversion " + std::to_string(conversion));
    openWriter();
    writeSegment();
    std::string error;
    bool hasFailed = false;
    {
      const FailingClock clock(conversion);
      error = runtimeErrorOf([&] { writer_->flush_shm_buffer(kTimeout); });
      hasFailed = clock.hasFailed();
    }
    const bool isSent = queues_.send().waiting() == 1;
    const std::string sent = isSent ? hexOf(queues_.takeBatch()) : flushedBatch();
    EXPECT_EQ(sent, hex("ff00ee11 00000001") + segment_);
    EXPECT_EQ(flushedBatch(), hex("ff00ee11 00000000"));
    if (!hasFailed) {
      EXPECT_TRUE(isSent);
      EXPECT_GT(conversion, 2u);
      return;
    }
    EXPECT_EQ(error, kClockError);
    writer_->close();
    queues_.takeBatch();
  }
}

TEST_P(WithoutClock, AFlushFailsAndTheNextSendsTheBatch) {
  openWriter();
  writeSegment();
  expectClockError([&] { writer_->flush_shm_buffer(kTimeout); });
  EXPECT_EQ(queues_.send().waiting(), 0u);
  EXPECT_EQ(flushedBatch(), hex("ff00ee11 00000001") + segment_);
}

TEST_P(WithoutClock, ARecordThatNeedsRoomIsNotStored) {
  openWriter();
  writeSegment();
  expectClockError([&] { writeSegment(std::string(100, 'x')); });
  EXPECT_EQ(queues_.send().waiting(), 0u);
  EXPECT_EQ(flushedBatch(), hex("ff00ee11 00000001") + segment_);
}

TEST_P(WithoutClock, AFailedOpenLeavesItsRecordInTheBatch) {
  expectClockError([&] { writer_->open(); });
  EXPECT_EQ(thrownBy([&] { writer_->endSegment(); }).status, korvex::kStatusWrongState);
  EXPECT_EQ(flushedBatch(),
            hex("ff00ee11 00000001 00000000 00000000 0000000000000000 0000000000000000 00000001 "
                "00000000 00000000 00000000 00000000 aabbccdd"));
}

TEST_P(WithoutClock, AFailedCloseLeavesItsRecordInTheBatch) {
  openWriter();
  expectClockError([&] { writer_->close(); });
  writeSegment();  // throws when closed
  EXPECT_EQ(flushedBatch(),
            hex("ff00ee11 00000002 00000003 00000000 0000000000000002 0000000000000000 00000001 "
                "00000000 00000000 00000000 00000000 aabbccdd "
                "00000001 00000003 0000000000000003 0000000000000000 00000000 00000000 00000000 "
                "00000000 00000000 aabbccdd 616263"));
}

TEST_P(WithoutClock, AStopFailsAndItsRecordIsSentLater) {
  expectClockError([&] { writer_->stop(true); });
  EXPECT_EQ(flushedBatch(),
            hex("ff00ee11 00000001 00000004 00000000 0000000000000001 0000000000000000 00000001 "
                "00000000 00000000 00000000 00000000 aabbccdd"));
}

TEST_P(WithoutClock, DestructionGoesOn) {
  openWriter();
  const FailingClock clock(GetParam());
  EXPECT_NO_THROW(writer_.reset());
  EXPECT_TRUE(clock.hasFailed());
  EXPECT_EQ(queues_.send().waiting(), 0u);
}

// What needs no deadline of the calendar does not ask for it.
TEST_P(WithoutClock, AWriterIsConstructedAndPacksRecords) {
  openWriter();
  const FailingClock clock(GetParam());
  EXPECT_NO_THROW(ShmWriter("stream", queues_.name(), kTimeout, kTimeout, false));
  EXPECT_NO_THROW(writeSegment());
  EXPECT_FALSE(clock.hasFailed());
}
