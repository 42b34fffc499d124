#include <gtest/gtest.h>
#include <optional>
#include <qmx/log.h>
#include <qmx/trace.h>
#include <queue>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "korvex/Logger.h"
#include "korvex/ServerInfo.h"
#include "korvex/ShmBatch.h"
#include "korvex/Status.h"
#include "korvex/UniqueIdGenerator.h"
#include "queue/MessageQueue.h"
#include "support/DaemonQueues.h"
#include "support/ThrownError.h"
#include "unit/shm/AllocationFailures.h"
#include "unit/shm/BatchBuilders.h"

using namespace korvex::test;
using korvex::qmx_shm_message_t;
using korvex::ServerInfo;
using korvex::ShmBatch;

namespace {

INSTANTIATE_TEST_SUITE_P(, AllocationFailures,
                         testing::Values(AllocationFailure::Kind::Single,
                                         AllocationFailure::Kind::Lasting),
                         nameOf);

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

TEST_P(AllocationFailures, ConstructingABatch) {
  EXPECT_EQ(failEachOf([] { ShmBatch batch(300); }), 1u);
  EXPECT_GE(failEachOf([] {
              EXPECT_EQ(thrownBy([] { ShmBatch batch(7); }).status, korvex::kStatusInvalidArgument);
            }),
            1u);
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
    EXPECT_EQ(thrownBy([&] { batch.pushBack(recordWithoutData(0)); }).status,
              korvex::kStatusNoRoom);
  };
  const auto get = [&] {
    EXPECT_EQ(thrownBy([&] { batch.getEntry(1); }).status, korvex::kStatusInvalidArgument);
  };
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
              EXPECT_EQ(thrownBy(read).status, korvex::kStatusCorrupt);
              EXPECT_EQ(header.magic, 0u);
            }),
            1u);
  EXPECT_GE(failEachOf([&] {
              ShmBatch::MetaData metaData;
              const auto read = [&] { metaData.deserializeFromBuffer(zeros.data()); };
              EXPECT_EQ(thrownBy(read).status, korvex::kStatusCorrupt);
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

namespace {

std::vector<std::string> textsOf(const ServerInfo& info) {
  return {info.getServerName(),
          info.getUser(),
          info.getPasswd(),
          info.getAgentCfg(),
          info.getCurrentRoutingTable(),
          info.getRecommendRoutingTable(),
          info.getKeyDir(),
          info.getLocalIp(),
          info.getInterfaceIp(),
          info.getInterfaceName(),
          info.getClusterName()};
}

}  // namespace

// Each setting takes memory of its own, so an assignment may end between two of them.
TEST_P(AllocationFailures, AssigningSettingsLeavesEachOldOrNew) {
  const ServerInfo info = fullServerInfo();
  const std::vector<std::string> whole = textsOf(info);
  std::optional<ServerInfo> target;
  const auto renew = [&] { target.emplace("", "", "", "", "", "", ""); };
  const auto check = [&](const AllocationCounter&) {
    const std::vector<std::string> found = textsOf(*target);
    for (std::size_t i = 0; i < found.size(); ++i) {
      EXPECT_TRUE(found[i].empty() || found[i] == whole[i]) << i << ": " << found[i];
    }
    EXPECT_NE(found, whole);
    renew();
  };
  renew();
  EXPECT_EQ(failEach(
                GetParam(), [&] { *target = info; }, check),
            11u);
  EXPECT_EQ(textsOf(*target), whole);
  EXPECT_EQ(target->getFlags(), 0xabcu);
}

TEST_P(AllocationFailures, AssigningSettingsLeaksNothing) {
  const ServerInfo info = fullServerInfo();
  EXPECT_EQ(failEachOf([&] {
              ServerInfo target("", "", "", "", "", "", "");
              target = info;
            }),
            11u);
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

// The stream takes its memory while the text is written, the copy takes some after the number.
TEST_P(AllocationFailures, DrawingSpendsANumberOnlyOnceItIsWritten) {
  korvex::UniqueIdGenerator generator;
  std::size_t failures = 0;
  std::size_t drawn = 0;
  std::vector<std::size_t> spendingFailures;
  const auto draw = [&] { generator.generateId(kLong); };
  const auto next = [&] {
    ++failures;
    const std::string id = generator.generateId("job");
    if (id == "job_" + std::to_string(drawn + 1)) spendingFailures.push_back(failures);
    drawn += id == "job_" + std::to_string(drawn) ? 1 : 2;
    EXPECT_EQ(id, "job_" + std::to_string(drawn - 1));
  };
  EXPECT_GE(failEachOf(draw, next), 2u);
  EXPECT_EQ(spendingFailures, std::vector<std::size_t>{failures}) << "only the last one, the copy";
}

TEST_P(AllocationFailures, ReachingTheGeneratorNeedsNoMemory) {
  const AllocationFailure failure(1, GetParam());
  EXPECT_NE(korvex::UniqueIdGenerator::getInstance(), nullptr);
}

namespace {

/// Looks only at lines that were handed on; the double allocates itself.
std::size_t linesHandedOn() { return korvex::test::platform_double::calls().size(); }

}  // namespace

TEST_P(AllocationFailures, ConstructingALogger) {
  EXPECT_GE(failEachOf([] { korvex::server::Logger logger(kLong); }), 1u);
}

namespace {

template <typename Call>
std::size_t allocationsOf(Call call) {
  korvex::test::platform_double::reset();
  korvex::test::platform_double::setTracing(true);
  const AllocationCounter counter;
  call();
  return counter.taken();
}

}  // namespace

// What the platform itself does without memory is its own affair, and the double takes some: so
// only the failures before the line is handed on are asked for, but each of them.
class LoggingAllocationFailures : public AllocationFailures {
 protected:
  /// `log` writes a line and `handOver` hands the same one to the platform at once.
  template <typename Log, typename HandOver>
  void expectAWholeLineOrNothing(Log log, HandOver handOver) {
    log();  // the double's own list has its size after this
    const std::size_t before = allocationsOf(log) - allocationsOf(handOver);
    EXPECT_GE(before, 1u);
    korvex::test::platform_double::reset();
    korvex::test::platform_double::setTracing(true);
    for (std::size_t number = 1; number <= before; ++number) {
      SCOPED_TRACE("allocation " + std::to_string(number) + " of " + std::to_string(before));
      const AllocationCounter counter;
      Outcome outcome{};
      {
        const AllocationFailure failure(number, GetParam());
        outcome = outcomeOf(log);
      }
      EXPECT_EQ(outcome, Outcome::BadAlloc);
      EXPECT_EQ(linesHandedOn(), 0u);
      EXPECT_EQ(counter.kept(), 0);
    }
    log();
    EXPECT_EQ(linesHandedOn(), 1u);
  }

  korvex::server::Logger logger_{"Reader" + kLong};
  const std::string line_ = "Reader" + kLong + "::" + kLong + ": fd=7";
};

INSTANTIATE_TEST_SUITE_P(, LoggingAllocationFailures,
                         testing::Values(AllocationFailure::Kind::Single,
                                         AllocationFailure::Kind::Lasting),
                         nameOf);

TEST_P(LoggingAllocationFailures, WriteAWholeLineOrNothing) {
  expectAWholeLineOrNothing(
      [&] { logger_.log(korvex::server::LOGLEVEL_ERROR, kLong.c_str(), 1, "fd=%d", 7); },
      [&] { ErrorA(1, "%s", line_.c_str()); });
}

TEST_P(LoggingAllocationFailures, TraceAWholeLineOrNothing) {
  expectAWholeLineOrNothing([&] { logger_.logTrace(kLong.c_str(), "fd=%d", 7); },
                            [&] { __TraceA("%s", line_.c_str()); });
}

// A line of no level goes nowhere, so that all of its memory is the logger's own.
TEST_P(LoggingAllocationFailures, DropALineOfNoLevelAllTheSame) {
  const auto level = static_cast<korvex::server::KorvxServerLoglevel>(99);
  EXPECT_GE(failEachOf([&] { logger_.log(level, kLong.c_str(), 1, "fd=%d", 7); }), 1u);
  EXPECT_EQ(linesHandedOn(), 0u);
}

TEST_P(AllocationFailures, CopyingAnError) {
  const Ov_ErrnoException error(9, kLong, kLong);
  EXPECT_EQ(failEachOf([&] { Ov_ErrnoException copy(error); }), 2u);
}

// The daemon's way to a queue. A name that is left would keep the next daemon from starting.
TEST_P(AllocationFailures, CreatingAQueueLeavesNoName) {
  const std::string name = korvex::test::uniqueQueueName("created");
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
