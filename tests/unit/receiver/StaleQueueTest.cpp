#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <stdexcept>
#include <sys/syscall.h>
#include <unistd.h>

#include "queues/StaleQueue.h"
#include "support/DaemonQueues.h"
#include "support/Queues.h"

using korvex::receiver::StaleQueue;
using korvex::test::queueExists;
using korvex::test::RawQueue;

namespace {

/// What happens between the opening of a queue and its claim.
std::function<void()> beforeClaim;

}  // namespace

/// In place of the system's function, whose name a type has as well.
extern "C" int claim(int file, int operation) noexcept __asm__("flock");
extern "C" int claim(int file, int operation) noexcept {
  if (beforeClaim) beforeClaim();
  return static_cast<int>(::syscall(SYS_flock, file, operation));
}

namespace {

class StaleQueueRace : public testing::Test {
 protected:
  void TearDown() override { beforeClaim = nullptr; }

  std::string refusal() const {
    try {
      StaleQueue(name_).remove();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }

  const std::string name_ = korvex::test::uniqueQueueName();
  std::unique_ptr<RawQueue> queue_ = std::make_unique<RawQueue>(name_, 2, 10);
};

}  // namespace

TEST_F(StaleQueueRace, WithNobodyIsWon) {
  EXPECT_EQ(refusal(), "");
  EXPECT_FALSE(queueExists(name_));
}

// The other one has served it already, so what lies there now is no stale queue.
TEST_F(StaleQueueRace, WithADaemonThatPublishesItsOwnIsLost) {
  beforeClaim = [this] {
    queue_.reset();
    queue_ = std::make_unique<RawQueue>(name_, 2, 10);
  };
  EXPECT_EQ(refusal(), "queue " + name_ + " was just replaced by another daemon");
  EXPECT_TRUE(queueExists(name_));
}

TEST_F(StaleQueueRace, WithADaemonAboutToPublishIsLost) {
  beforeClaim = [this] { queue_.reset(); };
  EXPECT_EQ(refusal(), "queue " + name_ + " was just replaced by another daemon");
}
