#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "korvex/receiver/SystemError.h"
#include "queues/QueuePair.h"
#include "support/Child.h"
#include "support/QueueFields.h"
#include "support/Queues.h"
#include "support/TemporaryFolder.h"

using korvex::MessageQueue;
using korvex::receiver::Limits;
using korvex::receiver::QueuePair;
using korvex::receiver::Receiver;
using korvex::test::queueExists;
using testing::HasSubstr;

using namespace std::string_literals;

namespace {

constexpr Limits kLimits{4, 300};
constexpr MessageQueue::Limits kQueueLimits{4, 300};
constexpr mode_t kMode = 0600;
constexpr gid_t kForeignGroup = 12345;

class QueuePairTest : public testing::Test {
 protected:
  std::unique_ptr<QueuePair> make(Receiver::Existing existing = Receiver::Existing::Refuse,
                                  Limits limits = kLimits, mode_t mode = kMode) {
    return std::make_unique<QueuePair>(Receiver::Settings{name_, limits, mode}, existing);
  }

  Receiver::Settings settingsFor(gid_t group) const {
    Receiver::Settings settings{name_, kLimits, 0660};
    settings.group = group;
    return settings;
  }

  std::string refusal(Receiver::Existing existing) {
    try {
      make(existing);
    } catch (const std::exception& error) {
      return error.what();
    }
    return "none";
  }

  /// Leaves an object under a name, as a dead daemon does.
  static void leave(const std::string& name) {
    MessageQueue(name, kQueueLimits, kMode);
    ASSERT_TRUE(queueExists(name));
  }

  static mode_t modeOf(const std::string& name) {
    struct stat found = {};
    return ::stat(("/dev/shm/" + name).c_str(), &found) == 0 ? found.st_mode & 0777 : 0;
  }

  static std::uint64_t memoryOf(const std::string& name) {
    constexpr std::uint64_t kBlock = 512;
    struct stat found = {};
    return ::stat(("/dev/shm/" + name).c_str(), &found) == 0
               ? static_cast<std::uint64_t>(found.st_blocks) * kBlock
               : 0;
  }

  static bool temporaryNamesAreLeft() {
    const std::string mine = ".korvexd-" + std::to_string(::getpid()) + "-";
    for (const std::string& name : korvex::test::namesIn("/dev/shm")) {
      if (name.compare(0, mine.size(), mine) == 0) return true;
    }
    return false;
  }

  std::string name_ = korvex::test::uniqueQueueName();
  std::string replies_ = name_ + "Response";
  korvex::test::QueueRemover remover_{name_};
};

}  // namespace

TEST_F(QueuePairTest, MakesBothQueuesForAWriter) {
  const auto pair = make();
  const MessageQueue batches(name_, MessageQueue::Clock::now());
  const MessageQueue replies(replies_, MessageQueue::Clock::now());
  EXPECT_EQ(batches.maxMessageSize(), 300u);
  EXPECT_EQ(batches.view().maxMessages(), 4u);
  EXPECT_EQ(replies.maxMessageSize(), 132u);
  EXPECT_FALSE(temporaryNamesAreLeft());
}

TEST_F(QueuePairTest, TakesAsMuchMemoryAsIsTold) {
  for (const Limits limits : {kLimits, Limits{8, 264 * 1024}}) {
    const auto pair = make(Receiver::Existing::Refuse, limits);
    EXPECT_EQ(korvex::receiver::sharedMemoryFor(limits), memoryOf(name_) + memoryOf(replies_));
  }
  EXPECT_EQ(korvex::receiver::sharedMemoryFor({}), 0u);
}

TEST_F(QueuePairTest, RemovesBothNamesAtItsEnd) {
  make().reset();
  EXPECT_FALSE(queueExists(name_) || queueExists(replies_));
}

TEST_F(QueuePairTest, GivesThePermissionsAskedForWhateverTheUmask) {
  const mode_t before = ::umask(077);
  const auto pair = make(Receiver::Existing::Refuse, kLimits, 0660);
  ::umask(before);
  EXPECT_EQ(modeOf(name_), 0660u);
  EXPECT_EQ(modeOf(replies_), 0660u);
}

TEST_F(QueuePairTest, GivesItsQueuesToTheGroup) {
  const gid_t group = korvex::test::isRoot() ? kForeignGroup : ::getegid();
  const QueuePair pair(settingsFor(group), Receiver::Existing::Refuse);
  for (const std::string& name : {name_, replies_}) {
    struct stat found = {};
    ASSERT_EQ(::stat(("/dev/shm/" + name).c_str(), &found), 0);
    EXPECT_EQ(found.st_gid, group);
    EXPECT_EQ(found.st_mode & 0777, 0660u);
  }
}

TEST_F(QueuePairTest, LeavesNothingWhenTheGroupIsNotItsOwn) {
  const std::string result = korvex::test::resultOfChild([this]() -> std::string {
    korvex::test::dropPrivileges();
    try {
      const QueuePair pair(settingsFor(kForeignGroup), Receiver::Existing::Refuse);
    } catch (const std::exception& error) {
      return temporaryNamesAreLeft() ? "something left" : error.what();
    }
    return "made";
  });
  EXPECT_EQ(result,
            "giving queue " + replies_ + " to group 12345: error 1 (Operation not permitted)");
}

TEST_F(QueuePairTest, RefusesAnExistingQueueAndLeavesItAlone) {
  leave(name_);
  EXPECT_EQ(refusal(Receiver::Existing::Refuse),
            "queue " + name_ + " exists already; --replace removes the queues of a dead daemon");
  EXPECT_TRUE(queueExists(name_));
  EXPECT_FALSE(queueExists(replies_) || temporaryNamesAreLeft());
}

TEST_F(QueuePairTest, RefusesAnExistingResponseQueue) {
  leave(replies_);
  EXPECT_THAT(refusal(Receiver::Existing::Refuse), HasSubstr(replies_ + " exists already"));
  EXPECT_TRUE(queueExists(replies_));
  EXPECT_FALSE(queueExists(name_) || temporaryNamesAreLeft());
}

TEST_F(QueuePairTest, ReplacesWhatADeadDaemonLeft) {
  leave(name_);
  leave(replies_);
  MessageQueue old(name_, MessageQueue::Clock::now());
  ASSERT_EQ(old.trySend("old", 3, 1), MessageQueue::Outcome::Done);
  const auto pair = make(Receiver::Existing::Replace);
  EXPECT_EQ(pair->batches().messages(), 0u);
  EXPECT_FALSE(old.view().isStillNamed(name_));
}

TEST_F(QueuePairTest, RefusesANameThatNoQueueCanHave) {
  for (const std::string& name : {""s, "/"s, "folder/queue"s, ".."s, "cut\0here"s}) {
    EXPECT_THROW(QueuePair({name, kLimits}, Receiver::Existing::Refuse), std::invalid_argument)
        << name;
  }
}

TEST_F(QueuePairTest, ReplacesNothingWhenNothingIsThere) {
  EXPECT_NO_THROW(make(Receiver::Existing::Replace));
}

TEST_F(QueuePairTest, ReplacesAnObjectThatIsNoQueue) {
  const int file = ::shm_open(name_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(file, 0);
  ::close(file);
  EXPECT_NO_THROW(make(Receiver::Existing::Replace));
}

TEST_F(QueuePairTest, RefusesToReplaceWhatAnotherServes) {
  const auto served = make();
  EXPECT_EQ(refusal(Receiver::Existing::Replace),
            "queue " + name_ + " is served by another daemon");
  EXPECT_EQ(served->defect(), "");
}

TEST_F(QueuePairTest, RefusesToReplaceAPairHalfServed) {
  const auto served = make();
  ASSERT_TRUE(MessageQueue::remove(name_));
  leave(name_);
  EXPECT_EQ(refusal(Receiver::Existing::Replace),
            "queue " + replies_ + " is served by another daemon");
  EXPECT_TRUE(queueExists(name_)) << "nothing is removed before all is claimed";
}

TEST_F(QueuePairTest, NeverRemovesWhatSomebodyElsePutInItsPlace) {
  auto pair = make();
  ASSERT_TRUE(MessageQueue::remove(name_));
  leave(name_);
  pair.reset();
  EXPECT_TRUE(queueExists(name_));
  EXPECT_FALSE(queueExists(replies_));
}

TEST_F(QueuePairTest, SaysHowMuchRoomAQueueLacks) {
  try {
    make(Receiver::Existing::Refuse, {1, std::size_t{1} << 46});
    FAIL() << "there is room for 64 TiB";
  } catch (const korvex::receiver::SystemError& error) {
    const std::size_t size = (std::size_t{1} << 46) + korvex::test::kIndexAt + 24;
    EXPECT_STREQ(error.what(),
                 ("creating queue " + name_ + ", which needs " + std::to_string(size) +
                  " bytes of shared memory in /dev/shm: "
                  "error 28 (No space left on device)")
                     .c_str());
  }
}

TEST_F(QueuePairTest, LeavesNothingWhenTheSecondQueueCannotBeMade) {
  EXPECT_ANY_THROW(make(Receiver::Existing::Refuse, {1, std::size_t{1} << 46}));
  EXPECT_FALSE(queueExists(name_) || queueExists(replies_) || temporaryNamesAreLeft());
}
