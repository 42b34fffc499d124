// A producer maps its input, the file shrinks, and the copy of a record faults. Its handler jumps
// out of the call, as is usual: the record that was refused so must leave no trace in the batch.

#include <algorithm>
#include <functional>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/ThrownError.h"
#include "unit/shm/WriterFixture.h"

using korvex::ShmBatch;
using korvex::test::DaemonQueues;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace korvex::test;

namespace {

sigjmp_buf beforeTheCall;

/// Whether the call was left because of a fault.
bool faults(const std::function<void()>& call) {
  struct sigaction before = {};
  struct sigaction action = {};
  action.sa_handler = [](int) { ::siglongjmp(beforeTheCall, 1); };
  ::sigaction(SIGBUS, &action, &before);
  volatile bool hasFaulted = true;
  if (sigsetjmp(beforeTheCall, 1) == 0) {
    call();
    hasFaulted = false;
  }
  ::sigaction(SIGBUS, &before, nullptr);
  return hasFaulted;
}

/// Two mapped pages of a file that has lost its second one.
class ShrunkFile {
 public:
  ShrunkFile() : file_(::memfd_create("shrunk", MFD_CLOEXEC)) {
    EXPECT_EQ(::ftruncate(file_, 2 * kPage), 0);
    pages_ = static_cast<unsigned char*>(
        ::mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0));
    std::fill_n(pages_, 2 * kPage, 'x');
    EXPECT_EQ(::ftruncate(file_, kPage), 0);
  }
  ~ShrunkFile() {
    ::munmap(pages_, 2 * kPage);
    ::close(file_);
  }
  ShrunkFile(const ShrunkFile&) = delete;
  ShrunkFile& operator=(const ShrunkFile&) = delete;

  /// Data of which this many bytes are still there.
  const unsigned char* dataBefore(std::size_t remaining) const {
    return pages_ + kPage - remaining;
  }

 private:
  static constexpr std::size_t kPage = 4096;
  int file_;
  unsigned char* pages_;
};

// Short ones are copied without a call, from 16 to 128 bytes; the last byte of each is gone.
constexpr std::uint32_t kLengths[] = {1, 5, 16, 17, 31, 32, 33, 100, 127, 128, 129, 3000};

/// The ways of a segment into the batch.
enum class Way { Short, Traced };

class FaultingCopy : public Writer {
 protected:
  FaultingCopy() { openOn(queues_); }

  bool segmentFaults(std::uint32_t length) {
    return faults([&] { writer().writeSegment(file_.dataBefore(length - 1), length); });
  }

  ShrunkFile file_;
  DaemonQueues queues_{200000};
};

class FaultingSegment : public FaultingCopy, public testing::WithParamInterface<Way> {
 protected:
  FaultingSegment() { korvex::test::platform_double::setTracing(GetParam() == Way::Traced); }
};

INSTANTIATE_TEST_SUITE_P(Ways, FaultingSegment, testing::Values(Way::Short, Way::Traced));

}  // namespace

TEST(FaultingPushBack, LeavesTheBatchAsItWas) {
  const ShrunkFile file;
  ShmBatch batch(4096);
  batch.pushBack(ShmBatch::Entry(headerOf(1, 4), bytesOf("01020304").data()));
  for (const std::uint32_t length : kLengths) {
    const ShmBatch::Entry entry(headerOf(1, length), file.dataBefore(length - 1));
    ASSERT_TRUE(faults([&] { batch.pushBack(entry); })) << length;
    EXPECT_EQ(batch.getNumEntries(), 1u) << length;
    EXPECT_EQ(batch.getRawSize(), 60u) << length;
    EXPECT_EQ(hexOf(batch.getRaw(), 8), hex("ff00ee11 00000001")) << length;
  }
  batch.pushBack(ShmBatch::Entry(headerOf(1, 2), bytesOf("0506").data()));
  EXPECT_EQ(hexOf(batch.getEntry(1).data, 2), "0506");
}

TEST_F(FaultingCopy, OfARecordIsNotSent) {
  for (const std::uint32_t length : kLengths) {
    const korvex::qmx_shm_message_t header = headerOf(1, length);
    ASSERT_TRUE(faults([&] {
      writer().write_data(&header, file_.dataBefore(length - 1), kTimeout, true);
    })) << length;
    EXPECT_EQ(queues_.send().waiting(), 0u);
  }
  EXPECT_THAT(flushedHeaders(queues_), IsEmpty());
}

TEST_P(FaultingSegment, IsNotSent) {
  for (const std::uint32_t length : kLengths) ASSERT_TRUE(segmentFaults(length)) << length;
  EXPECT_THAT(flushedHeaders(queues_), IsEmpty());
}

// As every other segment that is refused after its header was filled.
TEST_P(FaultingSegment, KeepsItsNumberAndThatThereWereData) {
  ASSERT_TRUE(segmentFaults(16));
  writer().endSegment();
  EXPECT_THAT(flushedHeaders(queues_), ElementsAre("(3,2,0,0,0,0,0,0,0,2864434397)"));
}

TEST_P(FaultingSegment, IsNotTheLastRecord) {
  writer().endSegment();
  for (const std::uint32_t length : {16u, 100u}) ASSERT_TRUE(segmentFaults(length)) << length;
  writer().endSegment();
  EXPECT_THAT(flushedHeaders(queues_), ElementsAre("(2,2,0,0,0,1,0,0,0,2864434397)"));
}
