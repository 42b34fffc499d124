#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "integration/DaemonFixture.h"
#include "support/HostileNames.h"
#include "support/Receipts.h"

using korvex::test::contentsOf;
using korvex::test::kAbcReceipt;
using korvex::test::namesIn;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

namespace {

/// "octal mode", and whose it is when it is not this user's.
std::string accessOf(const std::string& path) {
  struct stat found = {};
  if (::lstat(path.c_str(), &found) != 0) return "absent";
  char text[32];
  std::snprintf(text, sizeof text, "%04o", found.st_mode & 07777U);
  const bool isMine = found.st_uid == ::geteuid() && found.st_gid == ::getegid();
  return isMine ? text : std::string(text) + " of somebody else";
}

class DaemonSecurity : public DaemonFixture {
 protected:
  std::unique_ptr<Process> startWith(const std::vector<std::string>& more) {
    return start([&] {
      std::vector<std::string> all = {"--capture", capture_, "--stats", stats_};
      all.insert(all.end(), more.begin(), more.end());
      return all;
    }());
  }

  std::string inStream(const std::string& name) const {
    return output_ + "/" + namesIn(output_).at(0) + "/" + name;
  }

  /// Starts a daemon that must not serve.
  std::string refusal(const std::vector<std::string>& more) {
    const auto daemon = startOnly(more);
    EXPECT_EQ(daemon->wait(), 1);
    EXPECT_FALSE(korvex::test::queueExists(queue_));
    return daemon->errors();
  }

  std::string capture_ = folder_.makeFolder("cap");
  std::string stats_ = folder_ / "stats.json";
  /// Something of value, outside of everything that the daemon writes.
  std::string treasure_ = folder_.makeFolder("elsewhere") + "/treasure";
};

/// Everything that a daemon makes, under each mask that it may be started with.
class DaemonUnderUmask : public DaemonSecurity, public testing::WithParamInterface<mode_t> {
 protected:
  void SetUp() override { before_ = ::umask(GetParam()); }
  void TearDown() override { ::umask(before_); }

 private:
  mode_t before_ = 0;
};

}  // namespace

TEST_P(DaemonUnderUmask, GivesExactPermissions) {
  const auto daemon = startWith({});
  EXPECT_EQ(accessOf("/dev/shm/" + queue_), "0600");
  EXPECT_EQ(accessOf("/dev/shm/" + queue_ + "Response"), "0600");
  const auto to = writer();
  to->open();
  write(*to, "abc");
  to->flush_shm_buffer(kTimeout);
  ASSERT_TRUE(korvex::test::eventually([this] { return streams(true).size() == 1; }));
  EXPECT_EQ(accessOf(output_ + "/" + streams(true)[0]), "0700");
  to->close();
  EXPECT_STREQ(awaitReply(*to).message, kAbcReceipt);
  end(*daemon);
  EXPECT_EQ(accessOf(output_ + "/" + streams(false).at(0)), "0700");
  EXPECT_EQ(accessOf(inStream("data")), "0600");
  EXPECT_EQ(accessOf(inStream("manifest.json")), "0600");
  EXPECT_EQ(accessOf(capture_ + "/" + namesIn(capture_).at(0)), "0600");
  EXPECT_EQ(accessOf(stats_), "0644");
}

TEST_P(DaemonUnderUmask, GivesQueuesThePermissionsAskedFor) {
  const auto daemon = startWith({"--mode", "666"});
  EXPECT_EQ(accessOf("/dev/shm/" + queue_), "0666");
  EXPECT_EQ(accessOf("/dev/shm/" + queue_ + "Response"), "0666");
  end(*daemon);
}

INSTANTIATE_TEST_SUITE_P(Masks, DaemonUnderUmask, testing::Values(0, 022, 077, 0277, 0477, 0777),
                         [](const auto& mask) { return "Umask" + std::to_string(mask.param); });

TEST_F(DaemonSecurity, NeverWritesStatisticsThroughALink) {
  std::ofstream(treasure_) << "gold";
  fs::create_symlink(treasure_, stats_);
  EXPECT_THAT(refusal({"--stats", stats_}), HasSubstr("found something else, expected a file"));
  EXPECT_EQ(contentsOf(treasure_), "gold");
  EXPECT_TRUE(fs::is_symlink(stats_));
}

TEST_F(DaemonSecurity, NeverWritesStatisticsThroughATemporaryLink) {
  std::ofstream(treasure_) << "gold";
  fs::create_symlink(treasure_, stats_ + ".tmp");
  const auto daemon = startWith({});
  end(*daemon);
  EXPECT_EQ(contentsOf(treasure_), "gold");
  EXPECT_EQ(accessOf(stats_), "0644");
}

TEST_F(DaemonSecurity, WritesStatisticsToNoPipeAndNoFolder) {
  ASSERT_EQ(::mkfifo(stats_.c_str(), 0600), 0);
  EXPECT_THAT(refusal({"--stats", stats_}), HasSubstr("found something else, expected a file"));
  EXPECT_THAT(refusal({"--stats", output_}), HasSubstr("found something else, expected a file"));
}

TEST_F(DaemonSecurity, StoresInNoPipeAndNoFile) {
  const std::string pipe = folder_ / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::ofstream(treasure_) << "gold";
  output_ = pipe;
  EXPECT_THAT(refusal({}), HasSubstr("opening output folder " + pipe + ": error 20"));
  output_ = treasure_;
  EXPECT_THAT(refusal({}), HasSubstr("opening output folder " + treasure_ + ": error 20"));
  EXPECT_EQ(contentsOf(treasure_), "gold");
}

TEST_F(DaemonSecurity, CapturesThroughNoPlantedLinkOrPipe) {
  std::ofstream(treasure_) << "gold";
  const auto daemon = startWith({});
  // Where its first two messages would go, planted after it looked for numbers in use.
  fs::create_symlink(treasure_, capture_ + "/" + queue_ + "-00000001.batch");
  ASSERT_EQ(::mkfifo((capture_ + "/" + queue_ + "-00000002.batch").c_str(), 0600), 0);
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  EXPECT_TRUE(awaitLog(*daemon, "capturing a batch: error 17 (File exists)"));
  end(*daemon);
  EXPECT_EQ(contentsOf(treasure_), "gold");
}

// Neither where nobody would look for it, nor in what has taken its folder's name.
TEST_F(DaemonSecurity, StoresNowhereWhileItsFolderIsMovedAway) {
  const auto daemon = startWith({});
  fs::rename(output_, folder_ / "moved");
  fs::create_directory_symlink(folder_ / "elsewhere", output_);
  const auto to = writer();
  to->open();
  const auto reply = awaitReply(*to);
  EXPECT_EQ(reply.status, 5u);
  EXPECT_THAT(reply.message, StartsWith("output folder was moved, replaced or unmounted: "));
  EXPECT_THAT(namesIn(folder_ / "elsewhere"), ElementsAre());
  EXPECT_THAT(namesIn(folder_ / "moved"), ElementsAre());
  fs::remove(output_);
  fs::rename(folder_ / "moved", output_);
  EXPECT_EQ(stream("abc"), kAbcReceipt);
  end(*daemon);
}

namespace {

/// Many queues with bad names, served by one daemon.
class HostileNames : public DaemonSecurity {
 protected:
  HostileNames() {
    // The names must be this test's own, so a part of each is harmless.
    for (const std::string& hostile : korvex::test::hostileNames()) {
      names_.push_back(hostile + own_);
      names_.push_back(own_ + hostile);
    }
  }

  std::unique_ptr<Process> serveAll() {
    std::vector<std::string> options = {"--max-messages", "2", "--max-message-size", "200"};
    for (const std::string& name : names_) options.push_back("--queue=" + name);
    return startWith(options);
  }

  std::vector<std::string> left() const {
    std::vector<std::string> found;
    for (const std::string& name : namesIn("/dev/shm"))
      if (name.find(own_) != std::string::npos) found.push_back(name);
    return found;
  }

  const std::string own_ = "kx" + std::to_string(::getpid());
  std::vector<std::string> names_;
};

}  // namespace

TEST_F(HostileNames, StayInsideTheirFoldersAndLeaveEveryFileReadable) {
  ASSERT_GE(names_.size(), 100u);
  const auto daemon = serveAll();
  for (const std::string& name : names_) ASSERT_EQ(stream(name, "abc"), kAbcReceipt) << name;
  end(*daemon);

  EXPECT_THAT(namesIn(folder_.path()), ElementsAre("cap", "elsewhere", "out", "stats.json"));
  EXPECT_THAT(namesIn(folder_ / "elsewhere"), ElementsAre());
  EXPECT_THAT(left(), ElementsAre());
  EXPECT_EQ(namesIn(output_).size(), names_.size());
  std::vector<std::string> queues;
  for (const std::string& name : namesIn(output_)) {
    EXPECT_THAT(name, MatchesRegex("[A-Za-z0-9_%-][A-Za-z0-9._%-]*-[0-9]{8}T[0-9]{6}Z-[0-9]+"));
    EXPECT_THAT(namesIn(output_ + "/" + name), ElementsAre("data", "manifest.json"));
    queues.push_back(manifestOf(name)["queue"]);
  }
  for (const std::string& name : namesIn(capture_))
    EXPECT_THAT(name, MatchesRegex("[A-Za-z0-9_%-][A-Za-z0-9._%-]*-[0-9]{8}\\.batch"));

  const auto stats = nlohmann::json::parse(contentsOf(stats_));
  EXPECT_EQ(stats["queues"].size(), names_.size() + 1) << "each under a name of its own";
  EXPECT_EQ(stats["total"]["streams_complete"], names_.size());
  std::sort(queues.begin(), queues.end());
  EXPECT_EQ(std::unique(queues.begin(), queues.end()), queues.end());
}

TEST_F(HostileNames, AreRefusedWhenTheyWouldLeadToAnotherFolder) {
  const std::vector<std::string> refused = {"",
                                            "/",
                                            ".",
                                            "..",
                                            "/.",
                                            "/..",
                                            "../x",
                                            "/../x",
                                            "../../etc/passwd",
                                            "a/b",
                                            "a/../b",
                                            "a/",
                                            "//a",
                                            "///",
                                            "./a",
                                            "/dev/shm/a",
                                            "/tmp/a",
                                            "..//",
                                            std::string(248, 'a'),
                                            std::string(255, 'a'),
                                            std::string(256, 'a'),
                                            std::string(5000, 'a'),
                                            "/" + std::string(248, 'a'),
                                            std::string(67, ' ')};  // 201 bytes as a file name
  for (const std::string& name : refused) {
    Process daemon({KORVEXD_PROGRAM, "--queue=" + name, "--output", output_, "--capture", capture_,
                    "--stats", stats_});
    EXPECT_EQ(daemon.wait(), 2) << name;
    EXPECT_NE(daemon.errors(), "");
  }
  EXPECT_THAT(namesIn(folder_.path()), UnorderedElementsAre("cap", "elsewhere", "out"));
  EXPECT_THAT(namesIn(output_), ElementsAre());
  EXPECT_THAT(namesIn(capture_), ElementsAre());
}
