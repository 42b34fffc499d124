// Memory runs out in the middle of a receiver's work, whose operations are noexcept.

#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <qmx/error.h>
#include <string>
#include <utility>

#include "korvex/ShmWriter.h"
#include "korvex/receiver/Receiver.h"
#include "queue/MessageQueue.h"
#include "support/AllocationCounter.h"
#include "support/Await.h"
#include "support/Queues.h"
#include "support/SharedObject.h"

using korvex::ShmWriter;
using korvex::receiver::Count;
using korvex::receiver::Observer;
using korvex::receiver::Receiver;
using korvex::receiver::Sink;
using korvex::receiver::StillFinishing;
using korvex::receiver::StreamSummary;

namespace {

struct QuietSink : Sink {
  explicit QuietSink(int& count) : living(count) { ++living; }
  ~QuietSink() override { --living; }
  void write(const unsigned char*, std::size_t) override {}
  void complete(const StreamSummary&, const StillFinishing&) override {}
  void abandon(const StreamSummary&, const std::string&) override {}

  int& living;
};

/// Counts what it is told of streams.
struct CountingObserver : Observer {
  void streamOpened(const std::string&) noexcept override { isOpen = true; }
  void streamIncomplete(const StreamSummary& summary, const std::string& reason,
                        const std::string&) noexcept override {
    EXPECT_NE(summary.opened, 0);
    EXPECT_FALSE(reason.empty());
    isOpen = false;
    ++incomplete;
  }

  void streamComplete(const StreamSummary&, const std::string&) noexcept override {
    isOpen = false;
    ++complete;
  }

  bool isOpen = false;
  std::uint64_t complete = 0;
  std::uint64_t incomplete = 0;
};

class ShortMemory : public testing::TestWithParam<AllocationFailure::Kind> {
 protected:
  /// Takes what waits while the allocation with this number fails. False when there are not so
  /// many.
  bool takeAllWithout(std::size_t allocation) {
    const AllocationFailure failure(allocation, GetParam());
    while (receiver_.step()) {
    }
    return failure.happened();
  }

  bool hasQueues() const { return korvex::test::queueExists(name_); }

  /// Until nothing waits and the queues are there.
  void recover() {
    while (receiver_.step() || !hasQueues()) {
    }
  }

  /// The failure of the stream before may come back at any call; all up to that was sent. Whether
  /// the stream was sent whole.
  bool sendStream(bool isWhole = false) const {
    try {
      ShmWriter writer("test", name_, 1, 1, false);
      writer.open();
      for (int i = 0; i < 3; ++i) {
        writer.writeSegment(reinterpret_cast<const unsigned char*>("abc"), 3);
      }
      if (isWhole) {
        writer.close();
      } else {
        writer.stop(true);
      }
      return true;
    } catch (const Ov_ErrnoException&) {
      return false;
    }
  }

  std::uint64_t count(Count which) const { return receiver_.counters().get(which); }

  const std::string name_ = "short-memory-" + korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover_{name_};
  CountingObserver observer_;
  int sinks_ = 0;
  Receiver receiver_{
      {name_, {4, 4096}},
      [this](const std::string&, std::time_t) { return std::make_unique<QuietSink>(sinks_); },
      observer_};
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(, ShortMemory,
                         testing::Values(AllocationFailure::Kind::Single,
                                         AllocationFailure::Kind::Lasting));

TEST_P(ShortMemory, EndsNoReceiverAndCountsEachStreamOnce) {
  std::size_t allocation = 1;
  for (bool isWhole : {true, false}) {
    for (bool isAny = true; isAny; recover()) {
      SCOPED_TRACE("allocation " + std::to_string(allocation));
      const bool isSent = sendStream(isWhole);
      isAny = takeAllWithout(allocation) || !isSent;
      if (isSent) ++allocation;
    }
    EXPECT_GT(std::exchange(allocation, 1), 2u) << "none failed";
  }
  sendStream();  // after which no failure is left to come back
  recover();
  sendStream();
  recover();
  EXPECT_EQ(count(Count::StreamsOpened),
            count(Count::StreamsComplete) + count(Count::StreamsIncomplete));
  EXPECT_EQ(observer_.incomplete, count(Count::StreamsIncomplete));
  EXPECT_EQ(observer_.complete, count(Count::StreamsComplete));
  EXPECT_FALSE(observer_.isOpen);
  EXPECT_EQ(sinks_, 0);
}

TEST_P(ShortMemory, EndsNoReceiverThatMakesItsQueuesAgain) {
  const auto open = [this](const std::string&, std::time_t) {
    return std::make_unique<QuietSink>(sinks_);
  };
  std::size_t allocation = 0;
  for (bool isAny = true; isAny; recover()) {
    SCOPED_TRACE("allocation " + std::to_string(++allocation));
    receiver_.change({name_, {4, 4096 * (1 + allocation)}}, open);
    const AllocationFailure failure(allocation, GetParam());
    for (int steps = 0; steps < 4; ++steps) receiver_.step();
    isAny = failure.happened();
  }
  EXPECT_GT(allocation, 1u) << "none failed";
}

// Each attempt takes memory, even one that fails.
TEST(LostQueues, AreTriedLessAndLessOften) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  Observer silent;
  Receiver receiver({name, {4, 4096}}, nullptr, silent);
  ASSERT_TRUE(korvex::MessageQueue::remove(name));
  const korvex::test::SharedObject obstacle(name);
  ASSERT_TRUE(korvex::test::eventually([&] {
    receiver.step();
    return receiver.counters().get(Count::QueueReplacements) == 1;
  }));
  using Clock = std::chrono::steady_clock;
  Clock::time_point begin;
  const auto attempt = [&] {
    const AllocationCounter counter;
    while (counter.taken() == 0) {
      begin = Clock::now();
      receiver.step();
    }
  };
  attempt();  // comes at once
  for (const int pause : {25, 50, 100, 200}) {
    const auto last = begin;
    attempt();
    EXPECT_GE(Clock::now() - last, std::chrono::milliseconds(pause));
  }
}
