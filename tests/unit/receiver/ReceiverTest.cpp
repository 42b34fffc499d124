#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "QueueServer.h"
#include "korvex/ShmWriter.h"
#include "korvex/receiver/BusErrorGuard.h"
#include "korvex/receiver/IdleWatch.h"
#include "korvex/receiver/QueueStatus.h"
#include "korvex/receiver/Receiver.h"
#include "korvex/receiver/ReplyQueue.h"
#include "queue/MessageQueue.h"
#include "support/Await.h"
#include "support/Child.h"
#include "support/QueueFields.h"
#include "support/Queues.h"
#include "support/SharedObject.h"
#include "support/WireFormat.h"

using korvex::ShmWriter;
using korvex::receiver::Count;
using korvex::receiver::Limits;
using korvex::receiver::Observer;
using korvex::receiver::QueueStatus;
using korvex::receiver::Receiver;
using korvex::receiver::Sink;
using korvex::receiver::StillFinishing;
using korvex::receiver::StreamSummary;
using korvex::test::BatchBytes;
using korvex::test::eventually;
using korvex::test::kClose;
using korvex::test::kData;
using korvex::test::kOpen;
using korvex::test::queueExists;
using testing::ElementsAre;

namespace {

/// Sends a message that no writer would.
void sendRaw(const std::string& name, const BatchBytes& batch) {
  korvex::MessageQueue queue(name, korvex::MessageQueue::Clock::now());
  const auto& bytes = batch.bytes();
  ASSERT_EQ(queue.trySend(bytes.data(), bytes.size(), 0), korvex::MessageQueue::Outcome::Done);
}

/// Sinks of one receiver, the first of which is still finishing when the receiver is to end.
struct Streams {
  std::function<void()> whileFinishing = [] {};
  std::function<void()> whileAbandoning = [] {};
  std::atomic<bool> stop{false};
  std::vector<std::string> ends;
};

class SlowSink : public Sink {
 public:
  explicit SlowSink(Streams& streams) : streams_(streams) {}

  void write(const unsigned char*, std::size_t) override {}
  void complete(const StreamSummary&, const StillFinishing& stillFinishing) override {
    stillFinishing();  // meets what the next producer has sent
    streams_.whileFinishing();
    streams_.stop = true;
    streams_.ends.push_back("complete");
  }
  void abandon(const StreamSummary&, const std::string& reason) override {
    streams_.whileAbandoning();
    streams_.ends.push_back(reason);
  }

 private:
  Streams& streams_;
};

/// For each message that the receiver takes, an empty batch of the producer, if there is one. Also
/// how many it leaves at its end.
class Flood : public Observer {
 public:
  void messageReceived(std::uint64_t, const unsigned char*, std::size_t) noexcept override {
    if (producer != nullptr) producer->flush_shm_buffer(1);
  }
  void messagesLeft(std::size_t count) noexcept override { left = count; }

  ShmWriter* producer = nullptr;
  std::size_t left = 0;
};

/// A whole stream that waits for a slow sink, and the next producer.
class SlowFinish : public testing::Test {
 protected:
  SlowFinish() {
    ShmWriter first("first", name_, 1, 1, false);
    first.open();
    first.close();
  }

  const std::string name_ = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover_{name_};
  Streams streams_;
  Flood observer_;
  const korvex::receiver::SinkFactory open_ = [this](const std::string&, std::time_t) {
    return std::make_unique<SlowSink>(streams_);
  };
  Receiver receiver_{{name_, {4, 4096}}, open_, observer_};
  ShmWriter second_{"second", name_, 1, 1, false};
};

/// Ends its receiver when it was asked a third time.
class AskedSink : public Sink {
 public:
  explicit AskedSink(std::atomic<bool>& stop) : stop_(stop) {}

  void write(const unsigned char*, std::size_t) override {}
  void check() override { stop_ = ++asked_ == 3; }
  void complete(const StreamSummary&, const StillFinishing&) override {}
  void abandon(const StreamSummary&, const std::string&) override {}

 private:
  std::atomic<bool>& stop_;
  int asked_ = 0;
};

}  // namespace

TEST_F(SlowFinish, IsFollowedByWhatCameMeanwhile) {
  second_.open();
  receiver_.run(streams_.stop);
  EXPECT_THAT(streams_.ends, ElementsAre("complete", "the daemon ended"));
}

// The end takes no more than had come by then, and what follows is soon lost with the queues.
TEST_F(SlowFinish, EndsUnderAFloodOfEmptyBatches) {
  observer_.producer = &second_;
  receiver_.run(streams_.stop);
  EXPECT_THAT(streams_.ends, ElementsAre("complete"));
  EXPECT_LE(receiver_.counters().get(Count::Batches), 12u);
  EXPECT_GT(observer_.left, 0u);
}

TEST_F(SlowFinish, IsTheLastThatItsQueuesSee) {
  receiver_.run(streams_.stop);
  EXPECT_FALSE(queueExists(name_));
  EXPECT_FALSE(queueExists(name_ + "Response"));
  EXPECT_EQ(observer_.left, 0u);
}

TEST_F(SlowFinish, IsFollowedByACountOfWhatWasLost) {
  second_.open();
  streams_.whileAbandoning = [this] { second_.flush_shm_buffer(1); };
  receiver_.run(streams_.stop);
  EXPECT_EQ(observer_.left, 1u);
}

TEST_F(SlowFinish, HasRoomForALargerMessageAfterAChange) {
  while (receiver_.step()) {
  }
  receiver_.change({"", {4, 65536}}, open_);
  receiver_.step();
  ShmWriter next("next", name_, 1, 1, false);
  next.open();
  next.close();
  sendRaw(name_, BatchBytes().record(kOpen, 0).record(kData, 2, std::string(50000, 'x')));
  while (receiver_.step()) {
  }
  EXPECT_EQ(receiver_.counters().get(Count::Bytes), 50000u);
}

TEST_F(SlowFinish, KeepsNothingOfQueuesThatAreLostMeanwhile) {
  korvex::receiver::installBusErrorGuard();
  sendRaw(name_, BatchBytes().record(kOpen, 0));
  streams_.whileFinishing = [this] {
    EXPECT_EQ(::truncate(("/dev/shm/" + name_ + "Response").c_str(), 0), 0);
  };
  EXPECT_TRUE(eventually([this] {
    receiver_.step();
    return receiver_.counters().get(Count::QueueReplacements) == 1 && queueExists(name_);
  }));
  EXPECT_FALSE(receiver_.step());
}

TEST_F(SlowFinish, LeavesWhatCameMeanwhileWhenTheDrainIsOver) {
  second_.open();
  streams_.whileFinishing = [] {
    std::this_thread::sleep_for(korvex::receiver::QueueServer::kDrainPatience);
  };
  streams_.stop = true;
  receiver_.run(streams_.stop);
  EXPECT_EQ(observer_.left, 1u);
}

TEST(Receiver, TakesNoIdleTimeoutOfZero) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  Observer silent;
  Receiver::Settings settings{name, {4, 4096}};
  Receiver receiver(settings, nullptr, silent);
  settings.idleTimeout = std::chrono::seconds(0);
  EXPECT_THROW(receiver.change(settings, nullptr), std::invalid_argument);
  settings.queue += "other";
  EXPECT_THROW(Receiver(settings, nullptr, silent), std::invalid_argument);
}

// Asking takes a system call or two. At each look at the queue, that would cost a processor.
TEST(Receiver, AsksASinkAFewTimesASecondOnly) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  std::atomic<bool> stop{false};
  Observer silent;
  const auto open = [&](const std::string&, std::time_t) {
    return std::make_unique<AskedSink>(stop);
  };
  Receiver receiver({name, {4, 4096}}, open, silent);
  ShmWriter producer("silent", name, 1, 1, false);
  producer.open();
  const auto start = std::chrono::steady_clock::now();
  receiver.run(stop);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

namespace {

/// Fails when it is asked, once it is to.
struct FragileSink : Sink {
  explicit FragileSink(std::atomic<int>& asked, std::atomic<bool>& fails)
      : asked_(asked), fails_(fails) {}

  void write(const unsigned char*, std::size_t) override {}
  void check() override {
    ++asked_;
    if (fails_) throw std::runtime_error("no more");
  }
  void complete(const StreamSummary&, const StillFinishing&) override {}
  void abandon(const StreamSummary&, const std::string&) override {}

  std::atomic<int>& asked_;
  std::atomic<bool>& fails_;
};

}  // namespace

// Nothing else wakes it: its producer is silent, and so is everyone else.
TEST(Receiver, RetiresWhenItsLastStreamEndsInSilence) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  std::atomic<bool> stop{false};
  std::atomic<int> asked{0};
  std::atomic<bool> fails{false};
  Observer silent;
  korvex::receiver::IdleWatch watch;
  Receiver::Settings settings{name, {4, 4096}};
  settings.idleWatch = &watch;
  const auto open = [&](const std::string&, std::time_t) {
    return std::make_unique<FragileSink>(asked, fails);
  };
  Receiver receiver(settings, open, silent);
  auto end = std::async(std::launch::async, [&] { receiver.run(stop); });
  const struct Stop {
    ~Stop() { flag = true; }
    std::atomic<bool>& flag;
  } stopped{stop};
  ShmWriter producer("silent", name, 1, 1, false);
  producer.open();
  EXPECT_TRUE(eventually([&] { return asked > 1; }));
  receiver.retire();
  const int before = asked;
  EXPECT_TRUE(eventually([&] { return asked > before + 1; }));
  fails = true;
  EXPECT_TRUE(eventually([&] { return receiver.hasRetired(); }));
}

namespace {

constexpr Limits kLimits{4, 4096};
constexpr Limits kOtherLimits{2, 8192};
constexpr Limits kImpossibleLimits{Limits::kMostMessages, 16 * 1024 * 1024};

/// Remembers how a sink's stream ended.
class NotingSink : public Sink {
 public:
  NotingSink(std::string name, std::vector<std::string>& ends)
      : name_(std::move(name)), ends_(ends) {}

  void write(const unsigned char*, std::size_t) override {}
  void complete(const StreamSummary&, const StillFinishing&) override {
    ends_.push_back(name_ + " complete");
  }
  void abandon(const StreamSummary&, const std::string& reason) override {
    ends_.push_back(name_ + " " + reason);
  }

 private:
  const std::string name_;
  std::vector<std::string>& ends_;
};

class NotingObserver : public Observer {
 public:
  void streamIncomplete(const StreamSummary&, const std::string& reason,
                        const std::string&) noexcept override {
    incomplete.push_back(reason);
  }
  void queuesNotReplaced(const std::string&) noexcept override { ++outages; }
  void messagesLeft(std::size_t count) noexcept override { left = count; }
  void settingsChanged() noexcept override { changes.push_back("changed"); }
  void settingsNotChanged(const std::string&) noexcept override {
    changes.push_back("not changed");
  }

  std::vector<std::string> incomplete;
  std::vector<std::string> changes;
  unsigned outages = 0;
  std::size_t left = 0;
};

/// A receiver that is stepped, and gets orders meanwhile.
class ReceiverOrders : public testing::Test {
 protected:
  korvex::receiver::SinkFactory sinks(const std::string& name) {
    return [this, name](const std::string&, std::time_t) {
      return std::make_unique<NotingSink>(name, ends_);
    };
  }

  std::unique_ptr<ShmWriter> opened() const {
    auto writer = std::make_unique<ShmWriter>("test", name_, 1, 1, false);
    writer->open();
    return writer;
  }

  /// Takes what waits, and has a moment of rest.
  void takeAll() {
    while (receiver_.step()) {
    }
  }

  /// Has the receiver lose its queues to another object, and waits until it says so.
  std::unique_ptr<korvex::test::SharedObject> obstruct() {
    const unsigned before = observer_.outages;
    EXPECT_TRUE(korvex::MessageQueue::remove(name_));
    auto obstacle = std::make_unique<korvex::test::SharedObject>(name_);
    EXPECT_TRUE(eventually([&] {
      receiver_.step();
      return observer_.outages > before;
    }));
    return obstacle;
  }

  std::size_t messageSizeNow() const { return QueueStatus(name_).limits().messageSize; }

  const std::string name_ = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover_{name_};
  std::vector<std::string> ends_;
  NotingObserver observer_;
  Receiver receiver_{{name_, kLimits}, sinks("first"), observer_};
};

}  // namespace

TEST(Receiver, TakesTheLongestIdleTimeoutForALongOne) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  std::atomic<bool> stop{false};
  NotingObserver observer;
  Receiver::Settings settings{name, kLimits};
  settings.idleTimeout = std::chrono::seconds::max();
  const auto open = [&](const std::string&, std::time_t) {
    return std::make_unique<AskedSink>(stop);
  };
  Receiver receiver(settings, open, observer);
  ShmWriter producer("silent", name, 1, 1, false);
  producer.open();
  receiver.run(stop);
  EXPECT_THAT(observer.incomplete, ElementsAre("the daemon ended"));
}

TEST(Receiver, CountsWhatWaitsIfItNeverRan) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  NotingObserver observer;
  auto receiver = std::make_unique<Receiver>(Receiver::Settings{name, kLimits}, nullptr, observer);
  ShmWriter producer("waiting", name, 1, 1, false);
  producer.open();
  receiver.reset();
  EXPECT_EQ(observer.left, 1u);
}

TEST(Receiver, CountsNoMoreThanFitInAnOverwrittenQueue) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  NotingObserver observer;
  auto receiver = std::make_unique<Receiver>(Receiver::Settings{name, kLimits}, nullptr, observer);
  const korvex::test::QueueLock queue(name);
  queue.field(korvex::test::kMessagesAt) = ~std::uint64_t{0};
  receiver.reset();
  EXPECT_EQ(observer.left, kLimits.messages);
}

// With a robust lock and an owner that never was, the C library ends the process.
TEST_F(ReceiverOrders, MakesItsQueuesAgainWhenTheirLockIsOverwritten) {
  constexpr std::uint32_t kRobustAndInheriting = 16 + 32;
  constexpr std::uint32_t kNobody = (1 << 22) + 1;
  std::uint64_t replacements = 0;
  for (const std::uint32_t owner : {std::uint32_t{0}, kNobody}) {
    std::fstream queue("/dev/shm/" + name_, std::ios::in | std::ios::out | std::ios::binary);
    const auto overwrite = [&queue](off_t offset, const std::uint32_t& value) {
      queue.seekp(offset).write(reinterpret_cast<const char*>(&value), sizeof value).flush();
    };
    overwrite(korvex::test::kLockKindAt, kRobustAndInheriting);
    overwrite(korvex::test::kLockWordAt, owner);
    ASSERT_TRUE(queue);
    ++replacements;
    EXPECT_TRUE(eventually([&] {
      receiver_.step();
      return receiver_.counters().get(Count::QueueReplacements) == replacements;
    })) << owner;
    EXPECT_TRUE(eventually([&] {
      receiver_.step();
      return korvex::test::queueExists(name_);
    }));
  }
}

TEST_F(ReceiverOrders, HasRetiredAtOnceWithoutAStream) {
  takeAll();
  EXPECT_FALSE(receiver_.hasRetired());
  receiver_.retire();
  takeAll();
  EXPECT_TRUE(receiver_.hasRetired());
}

TEST_F(ReceiverOrders, TakesTheStreamsThatWaitWhenItRetires) {
  opened()->close();
  opened()->close();
  receiver_.retire();
  takeAll();
  EXPECT_THAT(ends_, ElementsAre("first complete", "first complete"));
}

TEST_F(ReceiverOrders, FinishesItsStreamBeforeItHasRetired) {
  const auto writer = opened();
  takeAll();
  receiver_.retire();
  takeAll();
  EXPECT_FALSE(receiver_.hasRetired());
  writer->close();
  takeAll();
  EXPECT_TRUE(receiver_.hasRetired());
  EXPECT_THAT(ends_, ElementsAre("first complete"));
}

TEST_F(ReceiverOrders, RefusesStreamsThatOpenAfterItRetired) {
  receiver_.retire();
  takeAll();
  const auto late = opened();
  takeAll();
  EXPECT_THAT(observer_.incomplete, ElementsAre("the daemon accepts no new streams on this queue"));
  EXPECT_TRUE(receiver_.hasRetired());
}

// Otherwise a producer that never pauses could keep it for ever.
TEST_F(ReceiverOrders, RefusesStreamsThatComeWhileItTakesTheRest) {
  opened()->close();
  receiver_.retire();
  receiver_.step();
  opened()->close();
  takeAll();
  EXPECT_THAT(ends_, ElementsAre("first complete"));
  EXPECT_THAT(observer_.incomplete, ElementsAre("the daemon accepts no new streams on this queue"));
}

TEST_F(ReceiverOrders, ChangesItsQueuesBetweenStreams) {
  const auto writer = opened();
  takeAll();
  receiver_.change({"", kOtherLimits}, sinks("second"));
  takeAll();
  EXPECT_EQ(messageSizeNow(), kLimits.messageSize);
  writer->close();
  takeAll();
  takeAll();
  EXPECT_EQ(messageSizeNow(), kOtherLimits.messageSize);
  EXPECT_THAT(observer_.changes, ElementsAre("changed"));
  opened()->close();
  takeAll();
  EXPECT_THAT(ends_, ElementsAre("first complete", "second complete"));
}

TEST_F(ReceiverOrders, ChangesNoQueueInWhichAStreamWaits) {
  const auto writer = opened();
  receiver_.change({"", kOtherLimits}, sinks("second"));
  takeAll();
  EXPECT_EQ(messageSizeNow(), kLimits.messageSize);
  writer->close();
  takeAll();
  EXPECT_THAT(ends_, ElementsAre("first complete"));
}

TEST_F(ReceiverOrders, KeepsItsQueuesWhenOnlyTheSinkChanges) {
  const QueueStatus before(name_);
  receiver_.change({"", kLimits}, sinks("second"));
  opened()->close();
  takeAll();
  EXPECT_TRUE(before.isStillNamed());
  EXPECT_THAT(ends_, ElementsAre("second complete"));
  EXPECT_THAT(observer_.changes, ElementsAre());
}

TEST_F(ReceiverOrders, ChangesEachSettingOfItsQueuesAlone) {
  Receiver::Settings settings{"", kLimits};
  const auto changed = [&] {
    receiver_.change(settings, sinks("second"));
    receiver_.step();
    return QueueStatus(name_);
  };
  settings.limits.messages = kOtherLimits.messages;
  EXPECT_EQ(changed().limits().messages, kOtherLimits.messages);
  settings.limits.messageSize = kOtherLimits.messageSize;
  EXPECT_EQ(changed().limits().messageSize, kOtherLimits.messageSize);
  settings.mode = 0660;
  EXPECT_EQ(changed().object().mode & 0777, 0660u);
  settings.group = korvex::test::isRoot() ? 12345 : ::getegid();
  EXPECT_EQ(changed().object().group, *settings.group);
  EXPECT_THAT(observer_.changes, ElementsAre("changed", "changed", "changed", "changed"));
}

TEST_F(ReceiverOrders, ReturnsToOldSettingsWhenNewOnesFail) {
  receiver_.change({"", kImpossibleLimits}, sinks("second"));
  takeAll();
  takeAll();
  EXPECT_THAT(observer_.changes, ElementsAre("not changed"));
  EXPECT_EQ(messageSizeNow(), kLimits.messageSize);
  opened()->close();
  takeAll();
  EXPECT_THAT(ends_, ElementsAre("first complete")) << "the sink is one of the settings";
}

TEST_F(ReceiverOrders, ReportsEveryOutageOfItsQueues) {
  for (unsigned outages : {1u, 2u, 3u}) {
    auto obstacle = obstruct();
    receiver_.step();
    EXPECT_EQ(observer_.outages, outages);
    obstacle.reset();
    if (outages == 2) receiver_.change({"", kOtherLimits}, sinks("second"));  // another way back
    EXPECT_TRUE(eventually([this] {
      receiver_.step();
      return queueExists(name_);
    }));
  }
}

TEST_F(ReceiverOrders, TakesOrdersWhileItsQueuesAreLost) {
  const auto obstacle = obstruct();
  receiver_.change({"", kOtherLimits}, sinks("second"));
  receiver_.step();
  EXPECT_THAT(observer_.changes, ElementsAre("not changed"));
  receiver_.retire();
  receiver_.step();
  EXPECT_TRUE(receiver_.hasRetired());
  receiver_.run(std::atomic<bool>(true));
}

namespace {

class SluggishSink : public Sink {
 public:
  using Clock = std::chrono::steady_clock;

  explicit SluggishSink(Clock::time_point& written) : written_(written) {}

  void write(const unsigned char*, std::size_t) override {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    written_ = Clock::now();
  }
  void complete(const StreamSummary&, const StillFinishing&) override {}
  void abandon(const StreamSummary&, const std::string&) override {}

 private:
  Clock::time_point& written_;
};

}  // namespace

TEST_F(ReceiverOrders, CountsSilenceFromTheEndOfASlowWrite) {
  Receiver::Settings settings{"", kLimits};
  settings.idleTimeout = std::chrono::seconds(1);
  SluggishSink::Clock::time_point written;
  receiver_.change(settings, [&](const std::string&, std::time_t) {
    return std::make_unique<SluggishSink>(written);
  });
  sendRaw(name_, BatchBytes().record(kOpen, 0).record(kData, 2, "abc"));
  EXPECT_TRUE(eventually([this] {
    receiver_.step();
    return !observer_.incomplete.empty();
  }));
  EXPECT_GE(SluggishSink::Clock::now() - written, *settings.idleTimeout);
  EXPECT_THAT(observer_.incomplete, ElementsAre("no batch for 1 seconds"));
}

namespace {

/// Whether the receiver works, as it says, at each moment that a sink sees.
class Moves : public Observer {
 public:
  void working() noexcept override { isWorking_ = true; }
  void waiting() noexcept override { isWorking_ = false; }

  bool isWorking_ = false;
};

class LookingSink : public Sink {
 public:
  LookingSink(Moves& moves, std::vector<bool>& seen) : moves_(moves), seen_(seen) {}

  void write(const unsigned char*, std::size_t) override { look(); }
  void check() override { look(); }
  void complete(const StreamSummary&, const StillFinishing& stillFinishing) override {
    moves_.isWorking_ = false;
    stillFinishing();
    look();
  }
  void abandon(const StreamSummary&, const std::string&) override {}

 private:
  void look() { seen_.push_back(moves_.isWorking_); }

  Moves& moves_;
  std::vector<bool>& seen_;
};

}  // namespace

TEST(Receiver, SaysThatItWorksWheneverASinkIsCalled) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  Moves moves;
  std::vector<bool> seen;
  const auto open = [&](const std::string&, std::time_t) {
    return std::make_unique<LookingSink>(moves, seen);
  };
  Receiver receiver({name, {4, 4096}}, open, moves);
  EXPECT_FALSE(receiver.step());
  EXPECT_FALSE(moves.isWorking_) << "nothing is there";
  ShmWriter writer("writer", name, 1, 1, false);
  writer.open();
  writer.writeSegment(reinterpret_cast<const unsigned char*>("abc"), 3);
  writer.flush_shm_buffer(1);
  EXPECT_TRUE(eventually([&] { return !receiver.step() && seen.size() >= 2; }))
      << "the sink is asked how it is, now and then";
  EXPECT_FALSE(moves.isWorking_);
  writer.close();
  while (receiver.step()) {
  }
  EXPECT_GE(seen.size(), 3u);
  EXPECT_THAT(seen, testing::Each(true));
}

namespace {

class LosableSink : public Sink {
 public:
  explicit LosableSink(const bool& isLost) : isLost_(isLost) {}

  void write(const unsigned char*, std::size_t) override {}
  void check() override {
    if (isLost_) throw std::runtime_error("the engine is gone");
  }
  void complete(const StreamSummary&, const StillFinishing&) override {}
  void abandon(const StreamSummary&, const std::string&) override {}

 private:
  const bool& isLost_;
};

}  // namespace

// The next producer's first batches are empty ones. A failure that is found after them would be
// reported to it instead.
TEST(Receiver, AsksASinkBeforeItTakesABatch) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  NotingObserver observer;
  bool isLost = false;
  const auto open = [&](const std::string&, std::time_t) {
    return std::make_unique<LosableSink>(isLost);
  };
  Receiver receiver({name, {4, 4096}}, open, observer);
  ShmWriter writer("writer", name, 1, 1, false);
  writer.open();
  writer.flush_shm_buffer(1);
  while (receiver.step()) {
  }
  isLost = true;
  writer.flush_shm_buffer(1);
  receiver.step();
  EXPECT_THAT(observer.incomplete, ElementsAre("the engine is gone"));
}

namespace {

/// Has room for one write.
class SmallSink : public Sink {
 public:
  void write(const unsigned char*, std::size_t) override {
    if (std::exchange(isFull_, true)) throw std::runtime_error("no room");
  }
  void complete(const StreamSummary&, const StillFinishing&) override {}
  void abandon(const StreamSummary&, const std::string&) override {}

 private:
  bool isFull_ = false;
};

/// A receiver that gets batches byte by byte.
class ReceiverBatches : public testing::Test {
 protected:
  void take(const BatchBytes& batch) {
    sendRaw(name_, batch);
    ASSERT_TRUE(receiver_->step());
  }

  void receiveWith(korvex::receiver::SinkFactory open) {
    receiver_.emplace(Receiver::Settings{name_, kLimits}, std::move(open), silent_);
    replies_.emplace(name_);
  }

  std::uint64_t count(Count which) const { return receiver_->counters().get(which); }

  const std::string name_ = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover_{name_};
  Observer silent_;
  std::optional<Receiver> receiver_;
  std::optional<korvex::receiver::ReplyQueue> replies_;
};

}  // namespace

TEST_F(ReceiverBatches, LeaveNothingGatheredBehind) {
  std::vector<std::string> ends;
  receiveWith(
      [&](const std::string&, std::time_t) { return std::make_unique<NotingSink>("sink", ends); });
  take(BatchBytes()
           .record(kOpen, 0)
           .record(kData, 2, "a")
           .record(kData, 3, "b")
           .record(kData, 4, "c"));
  EXPECT_EQ(count(Count::Bytes), 3u);
  EXPECT_EQ(count(Count::Records), 4u);
  EXPECT_EQ(count(Count::Batches), 1u);
  take(BatchBytes().record(kClose, 5));
  EXPECT_EQ(count(Count::Batches), 2u);
  EXPECT_STREQ(replies_->take()->message, "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
}

// The failure belongs to the stream before; the producer that opens the next one must not get it.
TEST_F(ReceiverBatches, FailBeforeTheNextStreamOpens) {
  receiveWith([](const std::string&, std::time_t) { return std::make_unique<SmallSink>(); });
  take(BatchBytes().record(kOpen, 0).record(kData, 2, "a"));
  take(BatchBytes().record(kData, 3, "b").record(kData, 4, "c").record(kOpen, 0));
  EXPECT_FALSE(replies_->take());
  EXPECT_EQ(count(Count::StreamsIncomplete), 1u);
  take(BatchBytes().record(kData, 2, "a").record(kClose, 3));
  EXPECT_THAT(replies_->take()->message, testing::StartsWith("stored bytes=1 "));
}
