// The output folder is a disk of its own, and an administrator's mounts change while it is in use.

#include <gmock/gmock.h>

#include "integration/DaemonFixture.h"
#include "support/Namespaces.h"

using korvex::test::namesIn;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

/// Shell lines in which $0 is the output folder and $1 the folder that shows the same disk.
struct Change {
  const char* name;
  const char* make;
  const char* undo;

  friend std::ostream& operator<<(std::ostream& out, const Change& change) {
    return out << change.name;
  }
};

/// A daemon with mounts of its own.
class OutputMount : public DaemonFixture, public testing::WithParamInterface<Change> {
 protected:
  void SetUp() override {
    if (!korvex::test::isRoot()) GTEST_SKIP() << "only root may change the daemon's mounts";
    if (!korvex::test::canMount()) GTEST_SKIP() << "no mount namespace of one's own";
    const std::string script =
        "mount -t tmpfs none \"$1\" && mount --bind \"$1\" \"$0\" || exit 99; shift; exec \"$@\"";
    daemon_ = std::make_unique<Process>(
        korvex::test::withOwnMounts({"/bin/sh", "-c", script, mountPoint_, disk_, KORVEXD_PROGRAM,
                                     "--queue", queue_, "--output", mountPoint_}));
    ASSERT_TRUE(awaitServing(*daemon_)) << daemon_->errors();
    output_ = asTheDaemonSees(disk_);
  }

  std::string asTheDaemonSees(const std::string& path) const {
    return "/proc/" + std::to_string(daemon_->id()) + "/root" + path;
  }

  /// Runs a line of the change where the daemon's mounts are.
  void run(const char* line) const {
    Process shell({"/usr/bin/nsenter", "-m", "-t", std::to_string(daemon_->id()), "/bin/sh", "-c",
                   line, mountPoint_, disk_});
    ASSERT_EQ(shell.wait(), 0) << shell.errors();
  }

  void expectRefused(korvex::ShmWriter& to) const {
    const auto reply = awaitReply(to);
    EXPECT_EQ(reply.status, 5u);
    EXPECT_THAT(reply.message, StartsWith("output folder was moved, replaced or unmounted: "));
    EXPECT_THAT(namesIn(asTheDaemonSees(mountPoint_)), IsEmpty()) << "what has taken its name";
    EXPECT_THAT(streams(false), IsEmpty());
  }

  void expectService() const {
    EXPECT_THAT(stream("abc"), StartsWith("stored bytes=3 "));
    ASSERT_THAT(streams(false), SizeIs(1));
    EXPECT_EQ(dataOf(streams(false)[0]), "abc");
  }

  const std::string mountPoint_ = output_;
  const std::string disk_ = folder_.makeFolder("disk");
  std::unique_ptr<Process> daemon_;
};

// Lazily, for the daemon has its folder open.
INSTANTIATE_TEST_SUITE_P(
    , OutputMount,
    testing::Values(Change{"MountedOver", "mount -t tmpfs none \"$0\"", "umount \"$0\""},
                    Change{"Unmounted", "umount --lazy \"$0\"", "mount --bind \"$1\" \"$0\""}),
    [](const auto& change) { return std::string(change.param.name); });

}  // namespace

TEST_P(OutputMount, StoresNothingUntilItIsBack) {
  run(GetParam().make);
  const auto to = writer();
  to->open();
  expectRefused(*to);
  EXPECT_THAT(streams(true), IsEmpty());
  run(GetParam().undo);
  expectService();
  end(*daemon_);
}

TEST_P(OutputMount, CompletesNoStreamThatIsOpenMeanwhile) {
  const auto to = writer();
  to->open();
  write(*to, "abc");
  to->flush_shm_buffer(kTimeout);
  ASSERT_TRUE(korvex::test::eventually([this] { return streams(true).size() == 1; }));
  run(GetParam().make);
  to->close();
  expectRefused(*to);
  EXPECT_THAT(streams(true), SizeIs(1));
  run(GetParam().undo);
  expectService();
  end(*daemon_);
}
