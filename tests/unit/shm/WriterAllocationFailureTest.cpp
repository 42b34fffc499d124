#include <algorithm>
#include <boost/interprocess/exceptions.hpp>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <new>
#include <string>

#include "korvex/Status.h"
#include "support/DaemonQueues.h"
#include "support/ThrownError.h"
#include "unit/shm/AllocationFailures.h"
#include "unit/shm/WriterFixture.h"

using namespace korvex::test;
using korvex::qmx_shm_message_t;
using korvex::ShmWriter;
using korvex::test::DaemonQueues;
using korvex::test::kPastDeadline;
using korvex::test::kTimeout;

namespace {

class WriterAllocationFailures : public AllocationFailures {};

INSTANTIATE_TEST_SUITE_P(, WriterAllocationFailures,
                         testing::Values(AllocationFailure::Kind::Single,
                                         AllocationFailure::Kind::Lasting),
                         nameOf);

/// How often this process has a queue, or its response queue, in its memory.
long timesMapped(const std::string& queue) {
  std::ifstream maps("/proc/self/maps");
  return std::count_if(std::istream_iterator<std::string>(maps), {}, [&](const std::string& word) {
    return word.find("/dev/shm/" + queue) != std::string::npos;
  });
}

/// An open writer on a queue that is full: the one message that it holds is the open record.
struct BlockedWriter {
  BlockedWriter() : queues(8192, 1), writer("stream " + kLong, queues.name(), kTimeout, 0, false) {
    writer.open();
    writer.endSegment();
  }

  DaemonQueues queues;
  ShmWriter writer;
};

}  // namespace

TEST_P(WriterAllocationFailures, ConstructingAWriter) {
  DaemonQueues queues;
  const auto construct = [&] { ShmWriter("stream " + kLong, queues.name(), kTimeout, 0, false); };
  EXPECT_GE(failEachOf(construct), 5u);  // two names, two queues, the batch
}

TEST_P(WriterAllocationFailures, ConstructingAWriterLeavesNoQueueMapped) {
  DaemonQueues queues;
  const auto mapped = [&] { return timesMapped(queues.name()); };
  const auto construct = [&] { ShmWriter("stream " + kLong, queues.name(), kTimeout, 0, false); };
  construct();
  const auto before = mapped();
  EXPECT_GT(before, 0) << "the daemon's end";
  failEachOf(construct, [&] { EXPECT_EQ(mapped(), before); });
}

TEST_P(WriterAllocationFailures, RefusingATimeout) {
  EXPECT_GE(failEachOf([] {
              EXPECT_EQ(thrownBy([] { korvex::validateTimeout(0); }).status,
                        korvex::kStatusInvalidArgument);
            }),
            1u);
}

namespace {

/// What a writer of a queue that is not there throws, by name.
std::string errorWithoutQueue(const std::string& name) {
  namespace ipc = boost::interprocess;
  try {
    const ShmWriter writer(kLong, name, kTimeout, 0, false);
  } catch (const std::bad_alloc&) {
    return "no memory";
  } catch (const ipc::interprocess_exception& error) {
    return error.get_error_code() == ipc::not_found_error ? "no queue" : "queue error";
  }
  return "nothing";
}

}  // namespace

// The queue library keeps silent about memory that it lacks for a text.
TEST_P(WriterAllocationFailures, MissingQueueIsReportedOrMemoryIs) {
  const std::string name = korvex::test::uniqueQueueName("missing");
  for (std::size_t number = 1;; ++number) {
    const AllocationCounter counter;
    std::string error;
    bool happened = false;
    {
      const AllocationFailure failure(number, GetParam());
      error = errorWithoutQueue(name);
      happened = failure.happened();
    }
    EXPECT_EQ(counter.kept(), 0);
    if (!happened) {
      EXPECT_EQ(error, "no queue");
      return;
    }
    EXPECT_TRUE(error == "no memory" || error == "no queue") << number << ": " << error;
  }
}

TEST_P(WriterAllocationFailures, NameOfTheResponseQueue) {
  EXPECT_GE(failEachOf([] { korvex::getMessageQueueResponseName(kLong); }), 1u);
}

TEST_P(WriterAllocationFailures, StreamOnAQueueWithRoomNeedsNoMemory) {
  DaemonQueues queues(200, 64);
  ShmWriter writer("stream", queues.name(), kTimeout, 0, false);
  const Bytes data(100, 'x');
  const AllocationFailure failure(1, GetParam());
  writer.open();
  writer.writeSegment(data.data(), data.size());
  writer.endSegment();
  writer.stop(false);
  writer.close();
}

TEST_P(WriterAllocationFailures, TimeoutKeepsTheBatch) {
  BlockedWriter blocked;
  const auto flush = [&] {
    EXPECT_EQ(thrownBy([&] { blocked.writer.flush_shm_buffer(kPastDeadline); }).status,
              korvex::kStatusTimedOut);
  };
  EXPECT_GE(failEachOf(flush), 1u);
  blocked.queues.takeBatch();
  blocked.writer.flush_shm_buffer(kTimeout);
  EXPECT_EQ(korvex::test::headersOf(blocked.queues.takeBatch()),
            std::vector<std::string>{"(2,2,0,0,0,1,0,0,0,2864434397)"});
}

TEST_P(WriterAllocationFailures, StopThatTimesOutLeavesTheWriterOpen) {
  BlockedWriter blocked;
  EXPECT_GE(failEachOf([&] {
              EXPECT_EQ(thrownBy([&] { blocked.writer.stop(true); }).status,
                        korvex::kStatusTimedOut);
            }),
            1u);
  blocked.writer.endSegment();  // throws when closed
  blocked.queues.takeBatch();
}

TEST_P(WriterAllocationFailures, RefusedRecordsAreNotStored) {
  BlockedWriter blocked;
  qmx_shm_message_t header;
  header.len = korvex::MAX_SEGMENT_SIZE + 1;
  EXPECT_GE(failEachOf([&] {
              const auto write = [&] { blocked.writer.write_data(&header, nullptr, 0, false); };
              EXPECT_EQ(thrownBy(write).status, korvex::kStatusTooLarge);
            }),
            1u);
  header.len = 1;
  EXPECT_GE(failEachOf([&] {
              const auto write = [&] { blocked.writer.write_data(&header, nullptr, 0, false); };
              EXPECT_EQ(thrownBy(write).status, korvex::kStatusInvalidArgument);
            }),
            1u);
  blocked.queues.takeBatch();
  blocked.writer.flush_shm_buffer(kTimeout);
  EXPECT_EQ(korvex::test::headersOf(blocked.queues.takeBatch()).size(), 1u);
}

TEST_P(WriterAllocationFailures, RecordLargerThanABatchIsRefused) {
  DaemonQueues queues(200, 64);
  ShmWriter writer("stream", queues.name(), kTimeout, 0, false);
  const Bytes data(1000, 'x');
  writer.open();
  EXPECT_GE(failEachOf([&] {
              const auto write = [&] { writer.writeSegment(data.data(), data.size()); };
              EXPECT_EQ(thrownBy(write).status, korvex::kStatusDoesNotFit);
            }),
            1u);
  writer.close();
}

TEST_P(WriterAllocationFailures, OperationsOfClosedWritersAndWrongAlgorithms) {
  DaemonQueues queues;
  ShmWriter writer("stream", queues.name(), kTimeout, 0, false);
  const auto write = [&] {
    EXPECT_EQ(thrownBy([&] { writer.writeSegment(nullptr, 0); }).status, korvex::kStatusWrongState);
  };
  EXPECT_GE(failEachOf(write), 1u);
  EXPECT_GE(failEachOf([&] {
              EXPECT_EQ(thrownBy([&] { writer.endSegment(); }).status, korvex::kStatusWrongState);
            }),
            1u);
  writer.open();
  writer.setSegmentAlg(static_cast<korvex_seg_state_t>(2), 0, 0, 0);
  EXPECT_GE(failEachOf(write), 1u);
  writer.setSegmentAlg(KORVEX_SEG_STATE_LIMITED, 0, 0, 0);
  writer.writeSegment(nullptr, 0);
}

// The batch is gone and the reply is taken before its text is made into an exception.
TEST_P(WriterAllocationFailures, RefusalByTheDaemonStaysReadable) {
  DaemonQueues queues(200, 64);
  ShmWriter writer("stream", queues.name(), kTimeout, 0, false);
  const std::string text(127, 't');
  queues.reply(77, text);
  const auto flush = [&] {
    const ThrownError error = thrownBy([&] { writer.flush_shm_buffer(kTimeout); });
    EXPECT_EQ(error.status, 77u);
  };
  EXPECT_GE(failEachOf(flush,
                       [&] {
                         EXPECT_EQ(writer.getResponse().status, 77u);
                         EXPECT_EQ(std::string(writer.getResponse().message, 127), text);
                         writer.flush_shm_buffer(kTimeout);  // no reply any more, no error
                         queues.reply(77, text);
                       }),
            2u);
}

TEST_P(WriterAllocationFailures, DestroyingAWriterThatCannotClose) {
  DaemonQueues queues(200, 1);
  auto writer = std::make_unique<ShmWriter>("stream", queues.name(), 1, 0, false);
  writer->open();
  const AllocationFailure failure(1, GetParam());
  writer.reset();  // the queue stays full; the error's text finds no memory
  EXPECT_TRUE(failure.happened());
}
