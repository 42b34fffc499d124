#include <algorithm>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "queue/MessageQueue.h"
#include "queues/Leftovers.h"
#include "support/Await.h"
#include "support/Child.h"
#include "support/Queues.h"

using korvex::MessageQueue;
using korvex::receiver::removeHalfMadeQueues;
using korvex::receiver::temporaryQueueName;
using korvex::test::queueExists;
using testing::Contains;
using testing::Not;
using testing::StartsWith;

namespace {

class TemporaryNameTest : public testing::Test {
 protected:
  void TearDown() override {
    for (const std::string& name : made_) MessageQueue::remove(name);
  }

  std::string make(const std::string& name) {
    MessageQueue(name, {1, 16}, 0600);
    made_.push_back(name);
    return name;
  }

  /// A process id that was used a moment ago and is free now.
  static pid_t deadProcess() {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ::waitpid(child, nullptr, 0);
    return child;
  }

  /// The name that a process of this namespace gives.
  static std::string nameBy(pid_t process, const std::string& end = "-1-2") {
    return ".korvexd-" + std::to_string(process) + "-" + std::to_string(ownNamespace()) + end;
  }

  static ino_t ownNamespace() {
    struct stat found = {};
    EXPECT_EQ(::stat("/proc/self/ns/pid", &found), 0);
    return found.st_ino;
  }

  /// Takes /proc away from this process alone. False where that is not allowed.
  static bool hideProcesses() {
    const int user = korvex::test::isRoot() ? 0 : CLONE_NEWUSER;
    return ::unshare(CLONE_NEWNS | user) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", "/proc", "tmpfs", 0, nullptr) == 0;
  }

  std::vector<std::string> made_;
};

}  // namespace

TEST_F(TemporaryNameTest, NamesProcessAndNamespaceAndIsUnique) {
  const std::string name = temporaryQueueName();
  EXPECT_THAT(name, StartsWith(nameBy(::getpid(), "-")));
  EXPECT_NE(temporaryQueueName(), name);
}

TEST_F(TemporaryNameTest, RemovesWhatADeadDaemonLeftHalfMade) {
  korvex::test::eventually([&] {
    const std::string name = make(nameBy(deadProcess()));
    const auto removed = removeHalfMadeQueues();
    EXPECT_FALSE(queueExists(name));
    // A daemon that starts at the same time may be faster.
    return std::count(removed.begin(), removed.end(), name) == 1;
  });
}

TEST_F(TemporaryNameTest, LeavesALivingDaemonsQueue) {
  const std::string name = make(temporaryQueueName());
  EXPECT_THAT(removeHalfMadeQueues(), Not(Contains(name)));
  EXPECT_TRUE(queueExists(name));
}

TEST_F(TemporaryNameTest, LeavesWhatMayBeOfAnotherNamespace) {
  const std::string process = ".korvexd-" + std::to_string(deadProcess());
  const std::string other = "-" + std::to_string(ownNamespace() + 1) + "-1-2";
  for (const std::string& name : {make(process + other), make(process + "-1-2"), make(process)}) {
    EXPECT_THAT(removeHalfMadeQueues(), Not(Contains(name)));
    EXPECT_TRUE(queueExists(name));
  }
}

TEST_F(TemporaryNameTest, LeavesEverythingWhereTheNamespaceIsUnknown) {
  const std::string name = make(".korvexd-" + std::to_string(deadProcess()) + "-0-1-2");
  const std::string seen = korvex::test::resultOfChild([] {
    if (!hideProcesses()) return std::string("not allowed");
    return temporaryQueueName() + (removeHalfMadeQueues().empty() ? " leaves all" : " removes");
  });
  if (seen == "not allowed") GTEST_SKIP() << "cannot hide /proc here";
  EXPECT_THAT(seen, testing::MatchesRegex("\\.korvexd-[0-9]+-0-[0-9]+-[0-9]+ leaves all"));
  EXPECT_TRUE(queueExists(name));
}

TEST_F(TemporaryNameTest, LeavesNamesWithoutAProcess) {
  const std::string end = "-" + std::to_string(ownNamespace()) + "-1-2";
  for (const char* process : {"", "x", "0", "-5", "99999999999999999999", "4294967296000"}) {
    const std::string name = make(std::string(".korvexd-") + process + end);
    EXPECT_THAT(removeHalfMadeQueues(), Not(Contains(name)));
    EXPECT_TRUE(queueExists(name)) << name;
  }
}

TEST_F(TemporaryNameTest, LeavesWhatIsNoFile) {
  const std::string name = nameBy(deadProcess());
  ASSERT_EQ(::mkfifo(("/dev/shm/" + name).c_str(), 0600), 0);
  made_.push_back(name);
  EXPECT_THAT(removeHalfMadeQueues(), Not(Contains(name)));
  EXPECT_TRUE(queueExists(name));
}

TEST_F(TemporaryNameTest, TellsWhoMakesWhichQueueInTheirOrder) {
  using korvex::receiver::HalfMadeQueue;
  const std::string own = make(temporaryQueueName());
  const std::string foreign = make(".korvexd-" + std::to_string(::getpid()) + "-" +
                                   std::to_string(ownNamespace() + 1) + "-1-2");
  const std::string first = make(nameBy(1, "-" + std::to_string(::getpid()) + "-2"));
  const std::vector<HalfMadeQueue> found = korvex::receiver::halfMadeQueues();
  const auto expect = [&](const std::string& name, pid_t process, HalfMadeQueue::Maker maker) {
    const auto at = std::find_if(found.begin(), found.end(),
                                 [&](const HalfMadeQueue& queue) { return queue.name == name; });
    ASSERT_TRUE(at != found.end()) << name;
    EXPECT_EQ(at->process, process) << name;
    EXPECT_TRUE(at->maker == maker) << name;
  };
  expect(own, ::getpid(), HalfMadeQueue::Maker::Alive);
  expect(first, 1, HalfMadeQueue::Maker::Alive);
  expect(foreign, 0, HalfMadeQueue::Maker::Unknown);
  EXPECT_TRUE(std::is_sorted(found.begin(), found.end(), [](const auto& one, const auto& other) {
    return one.name < other.name;
  }));
}
