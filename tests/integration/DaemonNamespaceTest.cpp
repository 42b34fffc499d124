// Daemon and producer in containers of their own: each has its own process ids.

#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include "integration/DaemonFixture.h"
#include "support/Child.h"
#include "support/LockHolder.h"
#include "support/Receipts.h"

using korvex::test::eventually;
using korvex::test::isRoot;
using korvex::test::kAbcReceipt;
using korvex::test::LockHolder;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

namespace {

/// A command to run in a PID namespace of its own.
std::vector<std::string> inNamespace(std::vector<std::string> command) {
  const char* const kind = isRoot() ? "-pf" : "-Urpf";
  command.insert(command.begin(), {"/usr/bin/unshare", kind, "--kill-child"});
  return command;
}

struct Places {
  const char* name;
  bool daemonIsAway;
  bool producerIsAway;
};

class DaemonNamespace : public DaemonFixture {
 protected:
  void SetUp() override {
    if (!korvex::test::canMakePidNamespace()) GTEST_SKIP() << "no PID namespace of one's own";
  }

  std::unique_ptr<Process> startAt(bool isAway, const std::string& messageSize = "264K") {
    const std::vector<std::string> command = {
        KORVEXD_PROGRAM, "--queue", queue_, "--output", output_, "--max-message-size", messageSize};
    auto daemon = std::make_unique<Process>(isAway ? inNamespace(command) : command);
    EXPECT_TRUE(awaitServing(*daemon)) << daemon->errors();
    return daemon;
  }

  std::unique_ptr<LockHolder> holderAt(bool isAway) const {
    if (!isAway) return std::make_unique<LockHolder>(queue_);
    return std::make_unique<LockHolder>(queue_, korvex::test::freeProcessId());
  }
};

class DaemonNamespaces : public DaemonNamespace, public testing::WithParamInterface<Places> {};

INSTANTIATE_TEST_SUITE_P(, DaemonNamespaces,
                         testing::Values(Places{"Daemon", true, false},
                                         Places{"Producer", false, true},
                                         Places{"Both", true, true}),
                         [](const auto& places) { return std::string(places.param.name); });

}  // namespace

TEST_P(DaemonNamespaces, LivingLockOwnerKeepsItsStream) {
  const auto daemon = startAt(GetParam().daemonIsAway);
  const auto to = writer();
  to->open();
  write(*to, "abc");
  to->flush_shm_buffer(kTimeout);
  ASSERT_TRUE(eventually([this] { return streams(true).size() == 1; }));
  const auto holder = holderAt(GetParam().producerIsAway);
  EXPECT_TRUE(holder->awaitOthersTry());
  holder->release();
  EXPECT_THAT(daemon->errors(), Not(HasSubstr("queues are lost")));
  to->close();
  EXPECT_STREQ(awaitReply(*to).message, kAbcReceipt);
}

TEST_P(DaemonNamespaces, DeadLockOwnerCostsOnlyThePair) {
  const auto daemon = startAt(GetParam().daemonIsAway);
  holderAt(GetParam().producerIsAway)->die();
  ASSERT_TRUE(awaitLog(*daemon, "served again"));
  EXPECT_EQ(stream("abc"), kAbcReceipt);
}

namespace {

/// A control group whose processes get 15 % of a processor. Removed at the end, when they are gone.
class ProcessorQuota {
 public:
  ProcessorQuota() {
    std::error_code error;
    const bool isOld = fs::exists("/sys/fs/cgroup/cpu/cpu.cfs_quota_us", error);
    folder_ = (isOld ? "/sys/fs/cgroup/cpu/korvex-test-" : "/sys/fs/cgroup/korvex-test-") +
              std::to_string(::getpid());
    if (!fs::create_directory(folder_, error)) return;
    std::ofstream quota(folder_ + (isOld ? "/cpu.cfs_quota_us" : "/cpu.max"));
    isSet_ = static_cast<bool>(quota << (isOld ? "15000" : "15000 100000") << std::flush);
  }
  ~ProcessorQuota() {
    std::error_code busy;
    eventually([&] { return fs::remove(folder_, busy) || !fs::exists(folder_); });
  }
  ProcessorQuota(const ProcessorQuota&) = delete;
  ProcessorQuota& operator=(const ProcessorQuota&) = delete;

  bool isSet() const { return isSet_; }

  /// Makes the calling process a member.
  void join() const { std::ofstream(folder_ + "/cgroup.procs") << 0 << std::flush; }

 private:
  std::string folder_;
  bool isSet_ = false;
};

/// More than the daemon has threads in a namespace of its own.
constexpr int kIdsOfDaemon = 30;

/// Runs a task in a namespace where its process has an id that the daemon's namespace has not.
/// Whether it came to its end.
bool succeedsAway(const std::function<void()>& task) {
  const std::string result = korvex::test::resultOfChild([&] {
    if (::unshare(isRoot() ? CLONE_NEWPID : CLONE_NEWPID | CLONE_NEWUSER) != 0) return "stays";
    const pid_t init = ::fork();
    int status = 0;
    if (init != 0) return ::waitpid(init, &status, 0) == init && status == 0 ? "ended" : "lost";
    for (int i = 0; i < kIdsOfDaemon; ++i) korvex::test::resultOfChild([] { return ""; });
    ::_exit(korvex::test::resultOfChild([&] { return task(), "done"; }) == "done" ? 0 : 1);
  });
  return result == "ended";
}

}  // namespace

// Its quota ends again and again while it has the queue's lock: large messages take long to copy.
TEST_F(DaemonNamespace, StoresTheStreamOfASlowForeignProducer) {
  const ProcessorQuota quota;
  if (!quota.isSet()) GTEST_SKIP() << "no control group of one's own";
  const auto daemon = startAt(true, "16M");
  const std::string piece(100000, 'x');
  EXPECT_TRUE(succeedsAway([&] {
    quota.join();
    const auto to = writer();
    to->open();
    for (int i = 0; i < 5000; ++i) write(*to, piece);
    to->close();
  }));
  ASSERT_TRUE(awaitLog(*daemon, "stream complete"));
  EXPECT_THAT(daemon->errors(), HasSubstr("stream complete, 500000000 bytes"));
}
