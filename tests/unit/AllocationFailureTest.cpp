#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <queue>
#include <sstream>
#include <string>
#include <vector>

#include <qmx/trace.h>

#include "korvex/Logger.h"
#include "korvex/ServerInfo.h"
#include "korvex/ShmBatch.h"
#include "korvex/ShmWriter.h"
#include "korvex/UniqueIdGenerator.h"
#include "shm/MessageQueue.h"
#include "support/DaemonQueues.h"
#include "support/SharedObject.h"
#include "support/ThrownError.h"
#include "unit/AllocationCounter.h"
#include "unit/BatchBuilders.h"
#include "unit/PlatformDouble.h"
#include "unit/WriterFixture.h"

// Every allocation of every operation fails, one after the other, once alone and once with all that
// follow it.

using korvex::qmx_shm_message_t;
using korvex::ServerInfo;
using korvex::ShmBatch;
using korvex::ShmWriter;
using korvex_test::DaemonQueues;
using writer_test::kPastDeadline;
using writer_test::kTimeout;

namespace {

/// Longer than any string that needs no memory of its own.
const std::string kLong(100, 'l');

/// What a call did while an allocation failed.
enum class Outcome { BadAlloc, OtherError, Nothing };

Outcome outcomeOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::bad_alloc&) {
    return Outcome::BadAlloc;
  } catch (const std::exception&) {
    return Outcome::OtherError;
  }
  return Outcome::Nothing;
}

/// Calls with every allocation failing in turn, and after each failure `checkAfterwards`, with
/// memory again. The number of allocations that failed.
template <typename Call, typename Check>
std::size_t failEach(AllocationFailure::Kind kind, Call call, Check checkAfterwards) {
  const std::function<void()> work = call;
  for (std::size_t number = 1;; ++number) {
    SCOPED_TRACE("allocation " + std::to_string(number));
    const AllocationCounter counter;
    bool happened = false;
    Outcome outcome{};
    {
      const AllocationFailure failure(number, kind);
      outcome = outcomeOf(work);
      happened = failure.happened();
    }
    if (!happened) return number - 1;
    EXPECT_EQ(outcome, Outcome::BadAlloc);
    checkAfterwards(counter);
    if (testing::Test::HasFailure()) return number;
  }
}

class AllocationFailures : public testing::TestWithParam<AllocationFailure::Kind> {
 protected:
  AllocationFailures() { platform_double::reset(); }
  ~AllocationFailures() override { platform_double::reset(); }

  /// For calls that keep nothing, whether they get through or not.
  template <typename Call>
  std::size_t failEachOf(Call call) {
    return failEach(GetParam(), call, [](const AllocationCounter& counter) {
      EXPECT_EQ(counter.kept(), 0) << "leaked";
    });
  }

  /// For calls with an effect that is looked at after each failure.
  template <typename Call, typename Check>
  std::size_t failEachOf(Call call, Check checkAfterwards) {
    return failEach(GetParam(), call, [&](const AllocationCounter& counter) {
      EXPECT_EQ(counter.kept(), 0) << "leaked";
      checkAfterwards();
    });
  }
};

std::string nameOf(const testing::TestParamInfo<AllocationFailure::Kind>& info) {
  return info.param == AllocationFailure::Kind::Single ? "Single" : "Lasting";
}

INSTANTIATE_TEST_SUITE_P(, AllocationFailures,
                         testing::Values(AllocationFailure::Kind::Single,
                                         AllocationFailure::Kind::Lasting),
                         nameOf);

/// An open writer on a queue that is full: the one message that it holds is the open record.
struct BlockedWriter {
  BlockedWriter() : queues(8192, 1), writer("stream " + kLong, queues.name(), kTimeout, 0, false) {
    writer.open();
    writer.endSegment();
  }

  DaemonQueues queues;
  ShmWriter writer;
};

ServerInfo fullServerInfo() {
  ServerInfo info("1" + kLong, "2" + kLong, "3" + kLong, "4" + kLong, "5" + kLong, "6" + kLong,
                  "7" + kLong);
  info.setLocalIp("8" + kLong);
  info.setInterfaceIp("9" + kLong);
  info.setInterfaceName("a" + kLong);
  info.setClusterName("b" + kLong);
  info.setFlags(0xabc);
  return info;
}

}  // namespace

// Without this, all below would pass without a failure.
TEST_P(AllocationFailures, HappenAsOrdered) {
  const auto takeThree = [] {
    for (int block = 0; block < 3; ++block) ::operator delete(::operator new(10));
  };
  EXPECT_EQ(failEachOf(takeThree), 3u);
}

TEST_P(AllocationFailures, ConstructingAWriter) {
  DaemonQueues queues;
  const auto construct = [&] { ShmWriter("stream " + kLong, queues.name(), kTimeout, 0, false); };
  EXPECT_GE(failEachOf(construct), 5u);  // two names, two queues, the batch
}

TEST_P(AllocationFailures, ConstructingAWriterLeavesNoQueueMapped) {
  DaemonQueues queues;
  const auto mapped = [&] { return korvex_test::bytesOfFile("/proc/self/maps").size(); };
  const auto construct = [&] { ShmWriter("stream " + kLong, queues.name(), kTimeout, 0, false); };
  construct();
  const std::size_t before = mapped();
  failEachOf(construct, [&] { EXPECT_EQ(mapped(), before); });
}

TEST_P(AllocationFailures, RefusingATimeout) {
  EXPECT_GE(failEachOf([] { EXPECT_EQ(thrownBy([] { korvex::validateTimeout(0); }).status, 9u); }),
            1u);
}

// The queue library keeps silent about memory that it lacks for a text.
TEST_P(AllocationFailures, MissingQueueIsReportedOrMemoryIs) {
  const std::string name = korvex_test::uniqueQueueName("missing");
  for (std::size_t number = 1; number < 20; ++number) {
    const AllocationCounter counter;
    Outcome outcome{};
    {
      const AllocationFailure failure(number, GetParam());
      outcome = outcomeOf([&] { ShmWriter(kLong, name, kTimeout, 0, false); });
    }
    EXPECT_NE(outcome, Outcome::Nothing);
    EXPECT_EQ(counter.kept(), 0);
  }
}

TEST_P(AllocationFailures, NameOfTheResponseQueue) {
  EXPECT_GE(failEachOf([] { korvex::getMessageQueueResponseName(kLong); }), 1u);
}

TEST_P(AllocationFailures, StreamOnAQueueWithRoomNeedsNoMemory) {
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

TEST_P(AllocationFailures, TimeoutKeepsTheBatch) {
  BlockedWriter blocked;
  const auto flush = [&] {
    EXPECT_EQ(thrownBy([&] { blocked.writer.flush_shm_buffer(kPastDeadline); }).status, 15u);
  };
  EXPECT_GE(failEachOf(flush), 1u);
  blocked.queues.takeBatch();
  blocked.writer.flush_shm_buffer(kTimeout);
  EXPECT_EQ(writer_test::headersOf(blocked.queues.takeBatch()),
            std::vector<std::string>{"(2,2,0,0,0,1,0,0,0,2864434397)"});
}

TEST_P(AllocationFailures, StopThatTimesOutLeavesTheWriterOpen) {
  BlockedWriter blocked;
  EXPECT_GE(
      failEachOf([&] { EXPECT_EQ(thrownBy([&] { blocked.writer.stop(true); }).status, 15u); }), 1u);
  blocked.writer.endSegment();  // throws when closed
  blocked.queues.takeBatch();
}

TEST_P(AllocationFailures, RefusedRecordsAreNotStored) {
  BlockedWriter blocked;
  qmx_shm_message_t header;
  header.len = korvex::MAX_SEGMENT_SIZE + 1;
  EXPECT_GE(failEachOf([&] {
              const auto write = [&] { blocked.writer.write_data(&header, nullptr, 0, false); };
              EXPECT_EQ(thrownBy(write).status, 85u);
            }),
            1u);
  header.len = 1;
  EXPECT_GE(failEachOf([&] {
              const auto write = [&] { blocked.writer.write_data(&header, nullptr, 0, false); };
              EXPECT_EQ(thrownBy(write).status, 9u);
            }),
            1u);
  blocked.queues.takeBatch();
  blocked.writer.flush_shm_buffer(kTimeout);
  EXPECT_EQ(writer_test::headersOf(blocked.queues.takeBatch()).size(), 1u);
}

TEST_P(AllocationFailures, RecordLargerThanABatchIsRefused) {
  DaemonQueues queues(200, 64);
  ShmWriter writer("stream", queues.name(), kTimeout, 0, false);
  const Bytes data(1000, 'x');
  writer.open();
  EXPECT_GE(failEachOf([&] {
              const auto write = [&] { writer.writeSegment(data.data(), data.size()); };
              EXPECT_EQ(thrownBy(write).status, 89u);
            }),
            1u);
  writer.close();
}

TEST_P(AllocationFailures, SegmentOperationsOfAClosedWriterAndAWrongAlgorithm) {
  DaemonQueues queues;
  ShmWriter writer("stream", queues.name(), kTimeout, 0, false);
  const auto write = [&] {
    EXPECT_EQ(thrownBy([&] { writer.writeSegment(nullptr, 0); }).status, 44u);
  };
  EXPECT_GE(failEachOf(write), 1u);
  EXPECT_GE(failEachOf([&] { EXPECT_EQ(thrownBy([&] { writer.endSegment(); }).status, 44u); }), 1u);
  writer.open();
  writer.setSegmentAlg(static_cast<korvex_seg_state_t>(2), 0, 0, 0);
  EXPECT_GE(failEachOf(write), 1u);
  writer.setSegmentAlg(KORVEX_SEG_STATE_LIMITED, 0, 0, 0);
  writer.writeSegment(nullptr, 0);
}

// The batch is gone and the reply is taken before its text is made into an exception.
TEST_P(AllocationFailures, RefusalByTheDaemonStaysReadable) {
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

TEST_P(AllocationFailures, DestroyingAWriterThatCannotClose) {
  DaemonQueues queues(200, 1);
  auto writer = std::make_unique<ShmWriter>("stream", queues.name(), 1, 0, false);
  writer->open();
  const AllocationFailure failure(1, GetParam());
  writer.reset();  // the queue stays full; the error's text finds no memory
  EXPECT_TRUE(failure.happened());
}

TEST_P(AllocationFailures, ConstructingABatch) {
  EXPECT_EQ(failEachOf([] { ShmBatch batch(300); }), 1u);
  EXPECT_GE(failEachOf([] { EXPECT_EQ(thrownBy([] { ShmBatch batch(7); }).status, 9u); }), 1u);
}

TEST_P(AllocationFailures, RefusalsOfABatchLeaveItAlone) {
  ShmBatch batch(8 + 48 + 3);
  batch.pushBack(record(1, "abc"));
  const std::string before = hexOf(batch.getRaw(), batch.getRawSize());
  const auto unchanged = [&] {
    EXPECT_EQ(hexOf(batch.getRaw(), batch.getRawSize()), before);
    EXPECT_EQ(batch.getNumEntries(), 1u);
  };
  const auto push = [&] {
    EXPECT_EQ(thrownBy([&] { batch.pushBack(recordWithoutData(0)); }).status, 4u);
  };
  const auto get = [&] { EXPECT_EQ(thrownBy([&] { batch.getEntry(1); }).status, 9u); };
  EXPECT_GE(failEachOf(push, unchanged), 1u);
  EXPECT_GE(failEachOf(get, unchanged), 1u);
}

TEST_P(AllocationFailures, ReadingABatchBack) {
  ShmBatch batch(8 + 100 * 48);
  for (int entry = 0; entry < 100; ++entry) batch.pushBack(recordWithoutData(0));
  EXPECT_GE(failEachOf([&] {
              std::queue<ShmBatch::Entry> entries;
              ShmBatch::getEntriesFromBuffer(entries, batch.getRaw(), batch.getRawSize());
              EXPECT_EQ(entries.size(), 100u);
            }),
            4u);
}

TEST_P(AllocationFailures, ReadingIntoAQueueInUseKeepsWholeEntries) {
  ShmBatch batch(8 + 100 * 48);
  for (int entry = 0; entry < 100; ++entry) batch.pushBack(recordWithoutData(0));
  std::queue<ShmBatch::Entry> entries;
  const auto read = [&] {
    ShmBatch::getEntriesFromBuffer(entries, batch.getRaw(), batch.getRawSize());
  };
  const auto check = [&](const AllocationCounter&) {
    EXPECT_LT(entries.size(), 100u);
    for (; !entries.empty(); entries.pop()) EXPECT_EQ(entries.front().header.magic, 0xaabbccddu);
    entries = std::queue<ShmBatch::Entry>();
  };
  EXPECT_GE(failEach(GetParam(), read, check), 4u);
  EXPECT_EQ(entries.size(), 100u);
}

TEST_P(AllocationFailures, ReadingDamagedBytes) {
  const Bytes zeros(100, 0);
  EXPECT_GE(failEachOf([&] {
              qmx_shm_message_t header;
              const auto read = [&] { header.deserializeFromBuffer(zeros.data()); };
              EXPECT_EQ(thrownBy(read).status, 32u);
              EXPECT_EQ(header.magic, 0u);
            }),
            1u);
  EXPECT_GE(failEachOf([&] {
              ShmBatch::MetaData metaData;
              const auto read = [&] { metaData.deserializeFromBuffer(zeros.data()); };
              EXPECT_EQ(thrownBy(read).status, 32u);
              EXPECT_EQ(metaData.magic, 0u);
            }),
            1u);
}

namespace {

/// Prints into a stream that throws when its own memory ends; the text must be whole or not there.
template <typename Value>
void print(const Value& value, const std::string& expected) {
  std::ostringstream stream;
  stream.exceptions(std::ios::badbit);
  stream << value;
  EXPECT_EQ(stream.str(), expected);
}

}  // namespace

TEST_P(AllocationFailures, PrintingAHeader) {
  const std::string expected = "(0,0,0,0,0,1,0,0,0,2864434397)";
  EXPECT_GE(failEachOf([&] { print(qmx_shm_message_t(), expected); }), 1u);
}

TEST_P(AllocationFailures, PrintingAnEntry) {
  const std::string expected = "type=1, len=3, crc=38600999";
  EXPECT_GE(failEachOf([&] { print(record(1, "abc"), expected); }), 1u);
}

TEST_P(AllocationFailures, PrintingABatch) {
  ShmBatch batch(64);
  batch.pushBack(record(1, "abc"));
  const std::string expected =
      "ShmBatch: entries=1, bufferSize=64, used=59, [0]: type=1, len=3, crc=38600999";
  EXPECT_GE(failEachOf([&] { print(batch, expected); }), 2u);
}

TEST_P(AllocationFailures, PrintingSettings) {
  const ServerInfo info("srv", "u", "pw", "cfg", "r1", "r2", "/k");
  const std::string expected =
      "ServerName=srv, User=u, AgentCfg=cfg, CurrentRoute=r1, RecommendedRoute=r2, KeyDir=/k, "
      "fptype=1";
  EXPECT_GE(failEachOf([&] { print(info, expected); }), 1u);
}

// A stream that was not asked to throw says by its state that the text is not whole.
TEST_P(AllocationFailures, PrintingSettingsQuietly) {
  const ServerInfo info = fullServerInfo();
  for (std::size_t number = 1;; ++number) {
    std::ostringstream stream;
    const AllocationFailure failure(number, GetParam());
    stream << info;
    if (!failure.happened()) break;
    EXPECT_TRUE(stream.bad());
    EXPECT_EQ(stream.flags() & std::ios::basefield, std::ios::dec);
  }
}

TEST_P(AllocationFailures, ConstructingAndCopyingSettings) {
  const ServerInfo info = fullServerInfo();
  EXPECT_GE(failEachOf([&] {
              ServerInfo(info.getServerName(), info.getUser(), info.getPasswd(), info.getAgentCfg(),
                         info.getCurrentRoutingTable(), info.getRecommendRoutingTable(),
                         info.getKeyDir());
            }),
            7u);
  EXPECT_EQ(failEachOf([&] { ServerInfo copy(info); }), 11u);
}

TEST_P(AllocationFailures, SettersKeepTheOldValue) {
  using Setter = void (ServerInfo::*)(const std::string&);
  using Getter = const std::string& (ServerInfo::*)() const;
  const std::vector<std::pair<Setter, Getter>> settings = {
      {&ServerInfo::setLocalIp, &ServerInfo::getLocalIp},
      {&ServerInfo::setInterfaceIp, &ServerInfo::getInterfaceIp},
      {&ServerInfo::setInterfaceName, &ServerInfo::getInterfaceName},
      {&ServerInfo::setClusterName, &ServerInfo::getClusterName}};
  for (const auto& [set, get] : settings) {
    ServerInfo info("", "", "", "", "", "", "");
    (info.*set)("before");
    const auto call = [&, set = set] { (info.*set)(kLong); };
    const auto check = [&, get = get](const AllocationCounter&) {
      EXPECT_EQ((info.*get)(), "before");
    };
    EXPECT_EQ(failEach(GetParam(), call, check), 1u);
    EXPECT_EQ((info.*get)(), kLong);
  }
}

TEST_P(AllocationFailures, DrawingIdentifiersNeverRepeatsANumber) {
  korvex::UniqueIdGenerator generator;
  std::size_t drawn = 0;
  const auto draw = [&] { generator.generateId(kLong); };
  const auto next = [&] {
    drawn += 2;  // the one that failed, and this
    EXPECT_EQ(generator.generateId("job"), "job_" + std::to_string(drawn - 1));
  };
  EXPECT_GE(failEachOf(draw, next), 2u);
}

TEST_P(AllocationFailures, ReachingTheGeneratorNeedsNoMemory) {
  const AllocationFailure failure(1, GetParam());
  EXPECT_NE(korvex::UniqueIdGenerator::getInstance(), nullptr);
}

namespace {

/// Looks only at lines that were handed on; the double allocates itself.
std::size_t linesHandedOn() { return platform_double::calls().size(); }

}  // namespace

TEST_P(AllocationFailures, ConstructingALogger) {
  EXPECT_GE(failEachOf([] { korvex::server::Logger logger(kLong); }), 1u);
}

// What the platform itself does without memory is its own affair, and the double takes some: so
// only the failures before the line is handed on are asked for.
TEST_P(AllocationFailures, LoggingWritesAWholeLineOrNothing) {
  korvex::server::Logger logger("Reader" + kLong);
  platform_double::setTracing(true);
  for (std::size_t number = 1; number <= 4; ++number) {
    SCOPED_TRACE("allocation " + std::to_string(number));
    const AllocationCounter counter;
    Outcome logged{};
    Outcome traced{};
    {
      const AllocationFailure failure(number, GetParam());
      logged = outcomeOf(
          [&] { logger.log(korvex::server::LOGLEVEL_ERROR, kLong.c_str(), 1, "fd=%d", 7); });
    }
    {
      const AllocationFailure failure(number, GetParam());
      traced = outcomeOf([&] { logger.logTrace(kLong.c_str(), "fd=%d", 7); });
    }
    EXPECT_EQ(logged, Outcome::BadAlloc);
    EXPECT_EQ(traced, Outcome::BadAlloc);
    EXPECT_EQ(linesHandedOn(), 0u);
    EXPECT_EQ(counter.kept(), 0);
  }
  logger.log(korvex::server::LOGLEVEL_ERROR, "open", 1, "fd=%d", 7);
  EXPECT_EQ(linesHandedOn(), 1u);
}

TEST_P(AllocationFailures, CopyingAnError) {
  const Ov_ErrnoException error(9, kLong, kLong);
  EXPECT_EQ(failEachOf([&] { Ov_ErrnoException copy(error); }), 2u);
}

// The daemon's way to a queue. A name that is left would keep the next daemon from starting.
TEST_P(AllocationFailures, CreatingAQueueLeavesNoName) {
  const std::string name = korvex_test::uniqueQueueName("created");
  const auto create = [&] {
    const korvex::MessageQueue queue(name, {4, 100}, 0600);
    EXPECT_TRUE(korvex::MessageQueue::remove(name));
  };
  EXPECT_GE(failEachOf(create,
                       [&] {
                         EXPECT_FALSE(korvex::MessageQueue::remove(name)) << "left behind";
                         EXPECT_FALSE(korvex::MessageQueue::remove(name + ".room"));
                       }),
            2u);
}
