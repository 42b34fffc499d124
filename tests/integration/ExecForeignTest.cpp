// An engine that its daemon may not kill: a set-user-ID program that has become another user's. It
// must not see the end of its input for as long as it lives, and nobody waits for that.

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "integration/ExecFixture.h"
#include "support/Child.h"
#include "support/Receipts.h"

using korvex::test::childrenOf;
using korvex::test::eventually;
using korvex::test::kAbcReceipt;
using korvex::test::keepersFor;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr unsigned kUser = 60001;

/// An ordinary user's daemon, whose engines are root's.
class ExecForeign : public ExecFixture {
 protected:
  void SetUp() override {
    if (!korvex::test::isRoot()) GTEST_SKIP() << "needs root to be several users";
    makeBecomeRoot();
    if (asUser({becomeRoot_, "--reuid", "0", "/bin/true"})->wait() != 0) {
      GTEST_SKIP() << "a set-user-ID program in " << folder_.path() << " does not become root's";
    }
    if (asUser({"/usr/bin/test", "-x", KORVEXD_PROGRAM})->wait() != 0) {
      GTEST_SKIP() << "other users cannot reach " << KORVEXD_PROGRAM;
    }
  }

  std::unique_ptr<Process> startForeign() const {
    auto daemon = asUser({KORVEXD_PROGRAM, "--queue", queue_, "--exec",
                          becomeRoot_ + " --reuid 0 " + recorderCommand()});
    EXPECT_TRUE(awaitServing(*daemon)) << daemon->errors();
    return daemon;
  }

  pid_t engine() const { return childrenOf(keeper()).at(0); }

  /// Its input has not ended as long as anybody holds the write end, and that is the keeper or the
  /// daemon.
  static bool isInputOpen(pid_t engine) {
    const std::string path = "/proc/" + std::to_string(engine) + "/fd/0";
    const int input = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    char byte = 0;
    const bool isOpen = input >= 0 && ::read(input, &byte, 1) < 0 && errno == EAGAIN;
    ::close(input);
    return isOpen;
  }

  /// What root can do, and the daemon could not. Then nothing is left, and nothing is stored.
  void killAndExpectNoMore(pid_t engine, std::size_t streamsStored) const {
    EXPECT_EQ(::kill(engine, SIGKILL), 0);
    EXPECT_TRUE(awaitNoProcess());
    EXPECT_THAT(stored(), SizeIs(streamsStored));
    EXPECT_THAT(unfinished(), SizeIs(1));
  }

 private:
  /// With only its effective user changed, a process may still be killed by who has started it; so
  /// this one changes them all. It would make anybody root: only this user may come near it.
  void makeBecomeRoot() const {
    ASSERT_EQ(::chown(folder_.path().c_str(), 0, kUser), 0);
    ASSERT_EQ(::chmod(folder_.path().c_str(), 0710), 0);
    std::filesystem::copy_file("/usr/bin/setpriv", becomeRoot_);
    ASSERT_EQ(::chmod(becomeRoot_.c_str(), 04755), 0);
  }

  static std::unique_ptr<Process> asUser(const std::vector<std::string>& command) {
    const std::string user = std::to_string(kUser);
    std::vector<std::string> all = {"/usr/bin/setpriv", "--reuid", user,
                                    "--regid",          user,      "--clear-groups"};
    all.insert(all.end(), command.begin(), command.end());
    return std::make_unique<Process>(all);
  }

  const std::string becomeRoot_ = folder_ / "become-root";
};

}  // namespace

TEST_F(ExecForeign, HoldsUpNoStreamForAnUndyingEngine) {
  const auto daemon = startForeign();
  openRecorded("abc")->stop(false);
  const pid_t left = engine();
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  EXPECT_TRUE(isInputOpen(left));
  killAndExpectNoMore(left, 1);
  EXPECT_TRUE(eventually([&] { return childrenOf(daemon->id()).empty(); })) << "zombies";
  end(*daemon);
}

TEST_F(ExecForeign, LeavesTheKeeperAnEngineThatCannotDie) {
  const auto daemon = startForeign();
  const auto to = openRecorded("abc");
  const pid_t left = engine();
  end(*daemon);
  EXPECT_TRUE(isInputOpen(left));
  killAndExpectNoMore(left, 0);
}

TEST_F(ExecForeign, LeavesTheDaemonAnEngineThatCannotDie) {
  const auto daemon = startForeign();
  const auto to = openRecorded("abc");
  const pid_t left = engine();
  ::kill(keeper(), SIGKILL);
  EXPECT_STREQ(awaitReply(*to).message, "the engine's keeper was killed");
  EXPECT_STREQ(replyTo("abc").message, kAbcReceipt);
  EXPECT_TRUE(isInputOpen(left));
  killAndExpectNoMore(left, 1);
  EXPECT_TRUE(eventually([&] { return childrenOf(daemon->id()).empty(); })) << "zombies";
  end(*daemon);
}
