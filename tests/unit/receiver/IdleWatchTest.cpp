#include <fcntl.h>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "idle/IdleWatcher.h"
#include "korvex/ShmWriter.h"
#include "korvex/receiver/BusErrorGuard.h"
#include "korvex/receiver/IdleWatch.h"
#include "korvex/receiver/Receiver.h"
#include "korvex/receiver/ReplyQueue.h"
#include "support/Await.h"
#include "support/EngineProcesses.h"
#include "support/LockHolder.h"
#include "support/QueueFields.h"
#include "support/Queues.h"
#include "support/SharedObject.h"

using korvex::MessageQueue;
using korvex::ShmWriter;
using korvex::receiver::Count;
using korvex::receiver::IdlePlace;
using korvex::receiver::IdleWatch;
using korvex::receiver::IdleWatcher;
using korvex::receiver::Observer;
using korvex::receiver::QueueObject;
using korvex::receiver::Receiver;
using korvex::receiver::ReplyQueue;
using korvex::receiver::Sink;
using korvex::receiver::StillFinishing;
using korvex::receiver::StreamSummary;
using korvex::test::eventually;
using korvex::test::kPatience;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = IdleWatcher::Clock;

namespace {

/// A queue that nobody uses, and its place in a watch.
struct Watched {
  explicit Watched(IdleWatcher& watcher)
      : place(watcher, [this] { return ++checks > checksUntilLost; }) {
    place.attach(name, object);
  }

  /// Sleeps in a thread of its own. False when nothing woke it.
  std::future<bool> sleep(Clock::duration patience = kPatience) {
    return std::async(std::launch::async, [this, patience] {
      return place.await({queue.view(), stop, orders, {}}, Clock::now() + patience);
    });
  }

  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover{name};
  MessageQueue queue{name, MessageQueue::Limits{4, 100}, 0600};
  const QueueObject object{name};
  std::atomic<bool> stop{false};
  std::atomic<bool> orders{false};
  std::atomic<int> checks{0};
  std::atomic<int> checksUntilLost{1000};
  std::unique_ptr<korvex::test::LockHolder> holder;
  IdlePlace place;
};

/// Changes the object as a hostile peer would.
void change(const std::string& name, const std::function<int(int)>& how) {
  const int file = ::shm_open(name.c_str(), O_RDWR, 0);
  ASSERT_GE(how(file), 0);
  ::close(file);
}

void overwriteCount(Watched& watched) {
  const std::uint64_t odd = ~std::uint64_t{0};
  change(watched.name, [&](int file) {
    return static_cast<int>(::pwrite(file, &odd, sizeof odd, korvex::test::kMessagesAt));
  });
}

void cut(Watched& watched) {
  korvex::receiver::installBusErrorGuard();
  change(watched.name, [](int file) { return ::ftruncate(file, 0); });
}

struct News {
  const char* name;
  std::function<void(Watched&)> come;
};

const News kNews[] = {
    {"AMessage", [](Watched& watched) { watched.queue.trySend("a", 1, 1); }},
    {"ALock",
     [](Watched& watched) {
       watched.holder = std::make_unique<korvex::test::LockHolder>(watched.name);
     }},
    {"TheEnd", [](Watched& watched) { watched.stop = true; }},
    {"AnOrder", [](Watched& watched) { watched.orders = true; }},
    {"AnOddCount", overwriteCount},
    {"ALossOfMemory", cut},
    {"ALossThatOnlyChecksFind", [](Watched& watched) { watched.checksUntilLost = 1; }},
};

class WatchedQueue : public testing::TestWithParam<News> {
 protected:
  IdleWatcher watcher_;
  Watched watched_{watcher_};
  Watched other_{watcher_};
};

std::string nameOf(const testing::TestParamInfo<News>& news) { return news.param.name; }

}  // namespace

INSTANTIATE_TEST_SUITE_P(On, WatchedQueue, testing::ValuesIn(kNews), nameOf);

TEST_P(WatchedQueue, WakesItsReceiverAndNoOther) {
  auto other = other_.sleep();
  auto woken = watched_.sleep();
  ASSERT_TRUE(eventually([&] { return watched_.checks > 0 && other_.checks > 0; }));
  GetParam().come(watched_);
  EXPECT_TRUE(woken.get());
  EXPECT_EQ(other.wait_for(seconds(0)), std::future_status::timeout);
  other_.stop = true;
  EXPECT_TRUE(other.get());
}

TEST_P(WatchedQueue, LetsNobodySleepOverWhatCameBefore) {
  GetParam().come(watched_);
  EXPECT_TRUE(watched_.sleep().get());
}

TEST(IdleWatch, LeavesNoDescriptorOpen) {
  const std::size_t before = korvex::test::descriptorsOf(::getpid());
  { const IdleWatch watch; }
  EXPECT_EQ(korvex::test::descriptorsOf(::getpid()), before);
}

TEST(IdleWatcher, LetsAReceiverSleepUntilItsDeadline) {
  IdleWatcher watcher;
  Watched watched(watcher);
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(watched.sleep(milliseconds(20)).get());
}

TEST(IdleWatcher, WatchesAQueueWhoseHeaderItCannotMapAgain) {
  IdleWatcher watcher;
  Watched watched(watcher);
  watched.place.attach(watched.name, QueueObject());
  auto woken = watched.sleep();
  ASSERT_TRUE(eventually([&] { return watched.checks > 0; }));
  watched.queue.trySend("a", 1, 1);
  EXPECT_TRUE(woken.get());
}

TEST(IdleWatcher, WatchesHundredsOfQueues) {
  IdleWatcher watcher;
  std::vector<std::unique_ptr<Watched>> queues;
  std::vector<std::future<bool>> sleepers;
  for (int i = 0; i < 300; ++i) {
    queues.push_back(std::make_unique<Watched>(watcher));
    sleepers.push_back(queues.back()->sleep());
  }
  // Each round makes but a share of the checks.
  for (const auto& watched : queues) {
    EXPECT_TRUE(eventually([&] { return watched->checks > 0; }));
  }
  for (const auto& watched : queues) watched->queue.trySend("a", 1, 1);
  for (auto& sleeper : sleepers) EXPECT_TRUE(sleeper.get());
}

namespace {

/// What a receiver did, as its observer and its sinks saw it.
class Story : public Observer {
 public:
  void add(const std::string& event) {
    const std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
  }
  void queuesReplaced() noexcept override { add("replaced"); }
  void working() noexcept override {
    isWorking = true;
    ++steps;
  }
  void waiting() noexcept override { isWorking = false; }

  /// Waits for that many events.
  std::vector<std::string> events(std::size_t count) const {
    eventually([&] { return read().size() >= count; });
    return read();
  }

  std::atomic<unsigned> steps{0};
  std::atomic<bool> isWorking{false};

 private:
  std::vector<std::string> read() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> events_;
};

struct StorySink : Sink {
  explicit StorySink(Story& to, std::atomic<bool>& mayFail) : story(to), isLost(mayFail) {}
  void write(const unsigned char*, std::size_t) override {}
  void check() override {
    if (isLost) throw std::runtime_error("the sink is lost");
  }
  void complete(const StreamSummary&, const StillFinishing&) override { story.add("complete"); }
  void abandon(const StreamSummary&, const std::string& why) override { story.add(why); }

  Story& story;
  std::atomic<bool>& isLost;
};

/// A receiver at work in a thread of its own. Idle from the start, it sleeps in the watch.
class WatchedReceiver : public testing::Test {
 protected:
  using Events = std::vector<std::string>;

  ~WatchedReceiver() override { end(); }

  void end() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }

  Receiver::Settings settings() {
    Receiver::Settings settings{name_, {4, 4096}};
    settings.idleTimeout = seconds(3);
    settings.idleWatch = &watch_;
    return settings;
  }

  std::unique_ptr<ShmWriter> open() const {
    auto writer = std::make_unique<ShmWriter>("test", name_, 60, 60, false);
    writer->open();
    return writer;
  }

  /// Sends a bad message more than the answers to which find room.
  void leaveAReplyPending() const {
    MessageQueue queue(name_, Clock::now());
    for (std::size_t left = ReplyQueue(name_).capacity() + 1; left > 0; --left)
      ASSERT_TRUE(queue.sendBefore("x", 1, 0, Clock::now() + kPatience));
    ASSERT_TRUE(awaitCount(Count::RepliesPending, 1));
  }

  bool awaitCount(Count count, std::uint64_t number) const {
    return eventually([&] { return receiver_.counters().get(count) == number; });
  }

  const std::string name_ = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover_{name_};
  IdleWatch watch_;
  Story story_;
  std::atomic<bool> sinkIsLost_{false};
  std::atomic<bool> stop_{false};
  Receiver receiver_{settings(),
                     [this](const std::string&, std::time_t) {
                       return std::make_unique<StorySink>(story_, sinkIsLost_);
                     },
                     story_};
  std::thread thread_{[this] { receiver_.run(stop_); }};
};

}  // namespace

TEST_F(WatchedReceiver, TakesAnOrderInItsSleep) {
  open()->close();
  EXPECT_EQ(story_.events(1), Events{"complete"});
  receiver_.retire();
  EXPECT_TRUE(eventually([this] { return receiver_.hasRetired(); }));
}

TEST_F(WatchedReceiver, TakesStreamAfterStream) {
  for (std::size_t count = 1; count <= 20; ++count) {
    open()->close();
    EXPECT_EQ(story_.events(count), Events(count, "complete"));
  }
}

TEST_F(WatchedReceiver, EndsAStreamThatIsSilent) {
  const auto writer = open();
  EXPECT_EQ(story_.events(1), Events{"no batch for 3 seconds"});
}

TEST_F(WatchedReceiver, ChecksTheSinkOfASilentStream) {
  sinkIsLost_ = true;
  const auto writer = open();
  EXPECT_EQ(story_.events(1), Events{"the sink is lost"});
}

TEST_F(WatchedReceiver, OffersItsQueuesAgainWhenOneIsLost) {
  ASSERT_TRUE(MessageQueue::remove(name_));
  EXPECT_EQ(story_.events(1), Events{"replaced"});
  korvex::test::dieHoldingLockOf(name_ + "Response");
  EXPECT_EQ(story_.events(2), (Events{"replaced", "replaced"}));
  open()->close();
  EXPECT_EQ(story_.events(3).back(), "complete");
}

// The first step looks at the queues, the second one sleeps.
TEST_F(WatchedReceiver, SaysThatItWaitsInItsSleep) {
  EXPECT_TRUE(eventually([this] { return story_.steps > 1 && !story_.isWorking; }));
}

TEST_F(WatchedReceiver, SendsAReplyLateRatherThanNever) {
  leaveAReplyPending();
  std::this_thread::sleep_for(milliseconds(100));  // after which it would sleep in the watch
  ReplyQueue replies(name_);
  EXPECT_TRUE(eventually([&] { return replies.take().has_value(); }));
  EXPECT_TRUE(awaitCount(Count::RepliesSent, replies.capacity() + 1));
}

TEST_F(WatchedReceiver, OwesNoReplyAfterTheLossOfItsQueues) {
  leaveAReplyPending();
  ASSERT_TRUE(MessageQueue::remove(name_));
  EXPECT_TRUE(awaitCount(Count::RepliesPending, 0));
}

// Memory may be short when new ones are to be made.
TEST_F(WatchedReceiver, LetsGoOfTheMemoryOfLostQueues) {
  ASSERT_GT(korvex::test::mappingsOf(name_), 2U);
  ASSERT_TRUE(MessageQueue::remove(name_));
  const korvex::test::SharedObject another(name_);
  EXPECT_TRUE(eventually([this] { return korvex::test::mappingsOf(name_) == 0; }));
}

// Its caller has a loop of its own, in which it may not be kept.
TEST_F(WatchedReceiver, DoesNotSleepInAStep) {
  end();
  stop_ = false;
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(receiver_.step());
}
