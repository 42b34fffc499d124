#include <gmock/gmock.h>
#include <stdio.h>
#include <sys/stat.h>

#include "integration/DaemonFixture.h"
#include "integration/QueueEvents.h"
#include "integration/WriterStory.h"
#include "support/Child.h"
#include "support/DaemonQueues.h"
#include "support/Late.h"

using korvex::test::queueExists;
using korvex::test::RawQueue;
using korvex::test::strange::After;
using korvex::test::strange::Event;
using testing::HasSubstr;
using testing::Not;

namespace {

std::string pathOf(const std::string& name) { return "/dev/shm/" + name; }

/// The queues of a writer. What an event leaves there may be anything, a folder too.
class Queues {
 public:
  explicit Queues(const std::string& name)
      : send_(name, 8, 4096), response_(name + "Response", 8, 132) {}
  ~Queues() {
    ::remove(pathOf(send_.name()).c_str());
    ::remove(pathOf(response_.name()).c_str());
  }
  Queues(const Queues&) = delete;
  Queues& operator=(const Queues&) = delete;

 private:
  const RawQueue send_;
  const RawQueue response_;
};

/// Something happens to a queue that a writer has open.
class QueueInUseByWriter : public testing::TestWithParam<Event> {
 protected:
  std::string storyOfSendQueue() const {
    return storyOf([](const std::string& queue) { return queue; });
  }

  std::string storyOfResponseQueue() const {
    return storyOf([](const std::string& queue) { return queue + "Response"; });
  }

 private:
  /// On new queues each time that it is told.
  template <typename PlaceOf>
  static std::string storyOf(PlaceOf placeOf) {
    const auto tell = [&] {
      const std::string queue = korvex::test::uniqueQueueName("in-use");
      const Queues queues(queue);
      return told(queue, placeOf(queue));
    };
    return korvex::test::againWhenLate(tell, WriterStory::hasLateCall);
  }

  /// In a process of its own: some events end it.
  static std::string told(const std::string& queue, const std::string& place) {
    return korvex::test::resultOfChild([&] {
      WriterStory writer(queue);
      const std::string start = writer.construct();
      if (start != "works") return start;
      GetParam().happen(place);
      return writer.goOn();
    });
  }
};

/// Something happens to a queue that a daemon serves.
class QueueInUseByDaemon : public DaemonFixture, public testing::WithParamInterface<Event> {
 protected:
  void meet(const std::string& place) {
    const auto daemon = start();
    GetParam().happen(place);
    switch (GetParam().after) {
      case After::Untouched:
        expectService();
        EXPECT_THAT(daemon->errors(), Not(HasSubstr("lost")));
        break;
      case After::ServedAnew:
        expectServiceAnew(*daemon);
        break;
      case After::Blocked:
        expectBlocked(*daemon, place);
        break;
    }
    end(*daemon);
    EXPECT_FALSE(queueExists(queue_) || queueExists(queue_ + "Response"));
  }

  void expectService() const {
    EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  }

  void expectServiceAnew(Process& daemon) const {
    ASSERT_TRUE(awaitLog(daemon, queue_ + ": served again")) << daemon.errors();
    EXPECT_THAT(daemon.errors(), testing::ContainsRegex(queue_ + ": the queues are lost: (" +
                                                        GetParam().lost + ")\n"));
    expectService();
  }

  void expectBlocked(Process& daemon, const std::string& place) const {
    ASSERT_TRUE(awaitLog(daemon, queue_ + ": the queues cannot be recreated yet: queue " + place +
                                     " exists already"))
        << daemon.errors();
    struct stat found = {};
    EXPECT_EQ(::lstat(pathOf(place).c_str(), &found), 0) << "it is not the daemon's to remove";
    ::remove(pathOf(place).c_str());
    expectServiceAnew(daemon);
  }
};

}  // namespace

TEST_P(QueueInUseByWriter, AsItsSendQueue) {
  EXPECT_EQ(storyOfSendQueue(), GetParam().asSendQueue);
}

TEST_P(QueueInUseByWriter, AsItsResponseQueue) {
  EXPECT_EQ(storyOfResponseQueue(), GetParam().asResponseQueue);
}

TEST_P(QueueInUseByDaemon, AsTheSendQueue) { meet(queue_); }

TEST_P(QueueInUseByDaemon, AsTheResponseQueue) { meet(queue_ + "Response"); }

INSTANTIATE_TEST_SUITE_P(Events, QueueInUseByWriter,
                         testing::ValuesIn(korvex::test::strange::events()),
                         [](const auto& event) { return std::string(event.param.name); });
INSTANTIATE_TEST_SUITE_P(Events, QueueInUseByDaemon,
                         testing::ValuesIn(korvex::test::strange::events()),
                         [](const auto& event) { return std::string(event.param.name); });

// Each leads to the daemon's own object, and is not the one that belongs there.
TEST_F(DaemonFixture, NoticesThatTheNamesWereSwapped) {
  const auto daemon = start();
  ASSERT_EQ(::renameat2(0, pathOf(queue_).c_str(), 0, pathOf(queue_ + "Response").c_str(),
                        RENAME_EXCHANGE),
            0);
  ASSERT_TRUE(awaitLog(*daemon, "the queues are lost: they were removed or replaced"));
  ASSERT_TRUE(awaitLog(*daemon, "cannot be recreated yet: queue " + queue_ + " exists already"));
  ::remove(pathOf(queue_).c_str());
  ::remove(pathOf(queue_ + "Response").c_str());
  ASSERT_TRUE(awaitLog(*daemon, queue_ + ": served again"));
  end(*daemon);
}
