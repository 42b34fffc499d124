#include <cstdio>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "korvex/receiver/BusErrorGuard.h"
#include "korvex/receiver/Leftovers.h"
#include "korvex/receiver/QueueSurvey.h"
#include "queues/QueueObject.h"
#include "support/Child.h"
#include "support/DaemonQueues.h"
#include "support/SharedObject.h"

using korvex::receiver::pairNames;
using korvex::receiver::QueueObject;
using korvex::receiver::QueueStatus;
using korvex::receiver::removeDeadPair;
using korvex::receiver::ServingProcesses;
using korvex::test::queueExists;
using korvex::test::RawQueue;
using korvex::test::SharedObject;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

namespace {

class QueueSurvey : public testing::Test {
 protected:
  const std::string name_ = korvex::test::uniqueQueueName();
  const std::string replies_ = name_ + "Response";
};

}  // namespace

TEST_F(QueueSurvey, NamesAPairOnce) {
  const RawQueue batches(name_, 2, 10);
  const RawQueue replies(replies_, 2, 10);
  EXPECT_THAT(pairNames(), Contains(name_).Times(1));
  EXPECT_THAT(pairNames(), Not(Contains(replies_)));
}

TEST_F(QueueSurvey, NamesAPairOfWhichOneQueueIsLeft) {
  const RawQueue replies(replies_, 2, 10);
  EXPECT_THAT(pairNames(), Contains(name_));
}

TEST_F(QueueSurvey, NamesAPairNamedLikeAReplyQueue) {
  const RawQueue batches(replies_, 2, 10);
  const RawQueue replies(replies_ + "Response", 2, 10);
  EXPECT_THAT(pairNames(), Contains(replies_));
  EXPECT_THAT(pairNames(), Not(Contains(name_)));
}

TEST_F(QueueSurvey, NamesAPairHalfMadeOrPartlyDamaged) {
  const SharedObject zeros(name_);
  const SharedObject text(replies_, Bytes(4096, 'x'));
  EXPECT_THAT(pairNames(), Contains(name_));
}

TEST_F(QueueSurvey, PassesOverOtherProgramsMemory) {
  const SharedObject zeros(name_, Bytes(4096));
  const SharedObject text(name_ + "-text", Bytes(4096, 'x'));
  const SharedObject twin(name_ + "-textResponse", Bytes(4096, 'x'));
  EXPECT_THAT(pairNames(), Not(Contains(name_)));
  EXPECT_THAT(pairNames(), Not(Contains(name_ + "-text")));
}

TEST_F(QueueSurvey, TellsTheProcessThatClaimsAQueue) {
  const RawQueue queue(name_, 2, 10);
  const auto object = QueueStatus(name_).object();
  EXPECT_THAT(ServingProcesses().of(object).value_or(0), 0);
  const QueueObject claim(name_);
  ASSERT_TRUE(claim.claim());
  EXPECT_EQ(ServingProcesses().of(object), ::getpid());
}

TEST_F(QueueSurvey, RemovesBothQueuesOfADeadPair) {
  const RawQueue batches(name_, 2, 10);
  const RawQueue replies(replies_, 2, 10);
  EXPECT_THAT(removeDeadPair(name_), ElementsAre(name_, replies_));
  EXPECT_FALSE(queueExists(name_) || queueExists(replies_));
  EXPECT_THAT(removeDeadPair(name_), ElementsAre());
}

TEST_F(QueueSurvey, RemovesNeitherWhenOneIsServed) {
  const RawQueue batches(name_, 2, 10);
  const RawQueue replies(replies_, 2, 10);
  const QueueObject claim(replies_);
  ASSERT_TRUE(claim.claim());
  EXPECT_THROW(removeDeadPair(name_), std::runtime_error);
  EXPECT_TRUE(queueExists(name_) && queueExists(replies_));
}

TEST_F(QueueSurvey, TellsOwnerAndSizeOfWhatCannotBeOpened) {
  const SharedObject text(name_, Bytes(100, 'x'));
  ASSERT_EQ(::chmod(("/dev/shm/" + name_).c_str(), 0040), 0);
  const auto object = QueueStatus(name_).object();
  EXPECT_EQ(object.user, ::geteuid());
  EXPECT_EQ(object.mode, S_IFREG | 0040u);
  EXPECT_EQ(object.size, 100);
}

TEST_F(QueueSurvey, CountsWhatWaits) {
  RawQueue queue(name_, 3, 10);
  const QueueStatus status(name_);
  EXPECT_EQ(status.messages(), 0u);
  EXPECT_EQ(status.waitingBytes(), 0u);
  queue.post("0123456789", 7);
  queue.post("0123456789", 10);
  EXPECT_EQ(status.messages(), 2u);
  EXPECT_EQ(status.waitingBytes(), 17u);
}

TEST_F(QueueSurvey, SurvivesAQueueThatIsCutUnderIt) {
  const std::string seen = korvex::test::resultOfChild([this] {
    const RawQueue queue(name_, 4, 4096);
    const QueueStatus status(name_);
    korvex::receiver::installBusErrorGuard();
    if (::truncate(("/dev/shm/" + name_).c_str(), 0) != 0) return std::string("not cut");
    return std::to_string(status.messages() + status.waitingBytes()) +
           (status.looksLocked() || status.lockOwner() != 0 || status.isLockOwnerGone() ? " locked"
                                                                                        : " free");
  });
  EXPECT_EQ(seen, "0 free");
}

TEST_F(QueueSurvey, KnowsAQueueNoMoreThatWasCut) {
  const RawQueue queue(name_, 2, 10);
  const QueueStatus status(name_);
  EXPECT_TRUE(status.isStillNamed());
  ASSERT_EQ(::truncate(("/dev/shm/" + name_).c_str(), 100), 0);
  EXPECT_FALSE(status.isStillNamed());
}

TEST_F(QueueSurvey, TakesNoLongNameForItsBeginning) {
  const std::string longest = name_ + std::string(255 - name_.size(), 'x');
  const std::string path = QueueObject::path(longest);
  std::ofstream(path).put('x');
  struct stat found = {};
  EXPECT_TRUE(QueueObject::look(longest, found));
  EXPECT_FALSE(QueueObject::look(longest + "x", found));
  EXPECT_TRUE(QueueObject::exists(longest + "x")) << "nothing can be made there";
  std::remove(path.c_str());
}
