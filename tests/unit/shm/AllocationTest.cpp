#include <cstdint>
#include <gtest/gtest.h>
#include <new>
#include <string>
#include <vector>

#include "korvex/ShmBatch.h"
#include "korvex/ShmWriter.h"
#include "support/AllocationCounter.h"
#include "support/DaemonQueues.h"
#include "support/PlatformDouble.h"
#include "unit/shm/BatchBuilders.h"

using korvex::qmx_shm_message_t;
using korvex::ShmBatch;

namespace {

/// 2^62 + 5: more than any machine has.
constexpr unsigned long kImpossibleSize = (1ul << 62) + 5;

/// A batch with room for a few records, and counting only what happens after it was made.
class AllocationTest : public testing::Test {
 protected:
  AllocationTest() { korvex::test::platform_double::reset(); }
  ~AllocationTest() override { korvex::test::platform_double::reset(); }

  ShmBatch batch{300};
  const ShmBatch::Entry entry = record(1, "abc");
  const AllocationCounter counter;
};

}  // namespace

// The operators are called by name: compilers may leave out the pair behind a new and a delete.
TEST_F(AllocationTest, CounterSeesTheProgramsOwnBlocks) {
  void* const block = ::operator new(100);
  void* const blocks = ::operator new[](100);
  EXPECT_EQ(counter.kept(), 2);
  ::operator delete(block);
  ::operator delete[](blocks);
  EXPECT_EQ(counter.taken(), 2u);
  EXPECT_EQ(counter.kept(), 0);
}

TEST_F(AllocationTest, CounterSeesTheLibrarysBlocks) {
  {
    const ShmBatch other(100);
    EXPECT_EQ(counter.taken(), 1u);  // the buffer, and nothing else
    EXPECT_EQ(counter.kept(), 1);
  }
  EXPECT_EQ(counter.kept(), 0);
}

TEST_F(AllocationTest, CounterSeesAlignedBlocks) {
  constexpr std::align_val_t kPage{4096};
  void* const block = ::operator new(1, kPage);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 4096, 0u);
  EXPECT_EQ(counter.kept(), 1);
  ::operator delete(block, kPage);
  EXPECT_EQ(counter.kept(), 0);
}

TEST_F(AllocationTest, PushBackAllocatesNothing) {
  batch.pushBack(entry);
  batch.pushBack(entry);
  EXPECT_EQ(counter.taken(), 0u);
}

TEST_F(AllocationTest, CanStoreAllocatesNothing) {
  EXPECT_TRUE(batch.canStore(entry));
  EXPECT_FALSE(batch.canStore(recordWithoutData(300)));
  EXPECT_EQ(counter.taken(), 0u);
}

TEST_F(AllocationTest, ClearAllocatesNothing) {
  batch.clear();
  EXPECT_EQ(counter.taken(), 0u);
}

TEST_F(AllocationTest, GetEntryAllocatesNothing) {
  batch.pushBack(entry);
  batch.getEntry(0);
  EXPECT_EQ(counter.taken(), 0u);
}

TEST_F(AllocationTest, HeadersAreWrittenAndReadWithoutAllocating) {
  unsigned char bytes[48];
  qmx_shm_message_t header;
  header.serializeToBuffer(bytes);
  header.deserializeFromBuffer(bytes);
  EXPECT_EQ(counter.taken(), 0u);
}

TEST_F(AllocationTest, RefusedSizeAllocatesNoBuffer) {
  try {
    ShmBatch refused(7);
    ADD_FAILURE() << "accepted";
  } catch (const Ov_ErrnoException&) {
  }
  EXPECT_EQ(counter.kept(), 0);
}

TEST_F(AllocationTest, BatchThatGetsNoMemoryLeaksNothing) {
  EXPECT_THROW(ShmBatch{kImpossibleSize}, std::bad_alloc);
  EXPECT_EQ(counter.kept(), 0);
}

TEST_F(AllocationTest, BatchLargerThanTheAddressSpaceLeaksNothing) {
  EXPECT_THROW(ShmBatch{1ul << 63}, std::bad_alloc);
  EXPECT_EQ(counter.kept(), 0);
}

TEST_F(AllocationTest, TraceShowsTheLow32BitsOfABatchsSize) {
  korvex::test::platform_double::setTracing(true);
  EXPECT_THROW(ShmBatch{kImpossibleSize}, std::bad_alloc);
  EXPECT_EQ(korvex::test::platform_double::traceLines(),
            std::vector<std::string>{"ShmBatch: bufferSize=5"});
}

// Fresh memory is not zero in this program.
TEST_F(AllocationTest, BatchFillsItsBufferWithZeros) {
  EXPECT_EQ(hexOf(batch.getRaw(), 300), hex("ff00ee11") + std::string(592, '0'));
}

// From construction to the last reply a stream takes nothing from the heap but its batch.
TEST(WriterAllocations, StreamTakesNothingOnceTheWriterIsConstructed) {
  korvex::test::platform_double::reset();
  korvex::test::DaemonQueues queues(1024, 64);
  korvex::ShmWriter writer("stream", queues.name(), 60, 60, false);
  queues.reply(0, "stored");
  const Bytes data(100, 'x');

  const AllocationCounter counter;
  writer.open();
  for (int record = 0; record < 200; ++record) {
    writer.writeSegment(data.data(), data.size());
    writer.endSegment();
  }
  writer.close();
  EXPECT_EQ(counter.taken(), 0u);
  EXPECT_GT(queues.send().waiting(), 20u) << "many flushes must have been part of it";
}
