// Memory runs out in the middle of a receiver's work, whose operations are noexcept.

#include <gtest/gtest.h>
#include <memory>
#include <qmx/error.h>
#include <string>

#include "korvex/ShmWriter.h"
#include "korvex/receiver/Receiver.h"
#include "support/AllocationCounter.h"
#include "support/Queues.h"

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

  bool isOpen = false;
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

  /// The failure of the stream before may come back at any call; all up to that was sent.
  void sendStream() const {
    try {
      ShmWriter writer("test", name_, 1, 1, false);
      writer.open();
      writer.writeSegment(reinterpret_cast<const unsigned char*>("abc"), 3);
      writer.stop(true);
    } catch (const Ov_ErrnoException&) {
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
  std::size_t allocation = 0;
  do {
    SCOPED_TRACE("allocation " + std::to_string(++allocation));
    sendStream();
  } while (takeAllWithout(allocation) && (recover(), true));
  EXPECT_GT(allocation, 1u) << "none failed";
  recover();
  sendStream();  // after which no failure is left to come back
  recover();
  sendStream();
  recover();
  EXPECT_EQ(count(Count::StreamsOpened), count(Count::StreamsIncomplete));
  EXPECT_EQ(observer_.incomplete, count(Count::StreamsIncomplete));
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
