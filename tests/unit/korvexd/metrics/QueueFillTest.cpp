#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvex/receiver/BusErrorGuard.h>
#include <optional>
#include <sys/mman.h>
#include <unistd.h>

#include "korvexd/metrics/QueueFill.h"
#include "support/DaemonQueues.h"

using korvex::test::RawQueue;
using korvexd::QueueFill;
using std::chrono::seconds;

namespace {

constexpr std::size_t kMessages = 2;

class QueueFillTest : public testing::Test {
 protected:
  /// Looks so many seconds after the start.
  void lookAfter(int time, const QueueFill::Activity& activity = {false, 0}) {
    fill_.look(QueueFill::Clock::time_point(seconds(time)), activity);
  }
  double fullSeconds() const { return fill_.fullTime().count(); }
  void makeQueue() { queue_.emplace(name_, kMessages, 16); }

  const std::string name_ = korvex::test::uniqueQueueName();
  std::optional<RawQueue> queue_;
  QueueFill fill_{name_, QueueFill::Clock::time_point()};
};

}  // namespace

TEST_F(QueueFillTest, AddsTheTimeThatTheQueueIsFull) {
  makeQueue();
  queue_->post("a", 1);
  lookAfter(1);
  EXPECT_EQ(fill_.messages(), 1u);
  EXPECT_EQ(fill_.capacity(), kMessages);
  EXPECT_EQ(fullSeconds(), 0);
  queue_->post("b", 1);
  lookAfter(3);
  lookAfter(4);
  EXPECT_EQ(fullSeconds(), 3);
  queue_->take();
  lookAfter(5);
  EXPECT_EQ(fullSeconds(), 3);
}

TEST_F(QueueFillTest, CountsNoTimeBeforeThereIsAQueue) {
  lookAfter(1);
  lookAfter(2);
  EXPECT_EQ(fullSeconds(), 0);
}

TEST_F(QueueFillTest, GoesOnWithTheQueueThatReplacesAnother) {
  makeQueue();
  lookAfter(1);
  queue_.reset();
  lookAfter(2);
  EXPECT_EQ(fill_.messages(), 0u);
  EXPECT_EQ(fullSeconds(), 0) << "no queue is not a full one";
  makeQueue();
  queue_->post("a", 1);
  lookAfter(3);
  EXPECT_EQ(fill_.messages(), 1u);
}

TEST_F(QueueFillTest, OpensNoQueueWhoseThreadOnlyWaits) {
  makeQueue();
  lookAfter(1, {true, 7});
  EXPECT_EQ(fill_.capacity(), kMessages);
  queue_->post("a", 1);
  lookAfter(2, {true, 7});
  EXPECT_EQ(fill_.messages(), 0u);
  lookAfter(3, {true, 8});
  EXPECT_EQ(fill_.messages(), 1u) << "it took another one";
  queue_->post("b", 1);
  lookAfter(4, {false, 8});
  EXPECT_EQ(fill_.messages(), 2u) << "it hangs in its sink";
  lookAfter(6, {true, 8});
  EXPECT_EQ(fullSeconds(), 3) << "it waits for a lock";
}

TEST_F(QueueFillTest, OutlivesAQueueThatIsCut) {
  korvex::receiver::installBusErrorGuard();
  makeQueue();
  lookAfter(1);
  const int object = ::shm_open(name_.c_str(), O_RDWR | O_CLOEXEC, 0);
  ASSERT_EQ(::ftruncate(object, 0), 0);
  ::close(object);
  lookAfter(2);
  EXPECT_EQ(fill_.messages(), 0u);
}
