#include <errno.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "korvex/receiver/Receiver.h"
#include "korvex/receiver/SystemError.h"
#include "korvexd/os/File.h"
#include "korvexd/sink/DirectoryStore.h"
#include "support/Queues.h"
#include "support/TemporaryFolder.h"

using korvex::test::contentsOf;
using korvex::test::namesIn;
using korvex::test::TemporaryFolder;
using korvexd::renameWithoutReplacing;
using testing::ElementsAre;
namespace fs = std::filesystem;

namespace {

/// The error of a file system or a kernel that cannot rename without replacing; 0 for one that can.
int renameError = 0;

}  // namespace

/// In place of the system's function.
extern "C" int renameat2(int oldFolder, const char* oldName, int newFolder, const char* newName,
                         unsigned flags) noexcept {
  if (renameError == 0)
    return static_cast<int>(
        ::syscall(SYS_renameat2, oldFolder, oldName, newFolder, newName, flags));
  errno = renameError;
  return -1;
}

namespace {

/// Runs for each kind of system.
class Rename : public testing::TestWithParam<int> {
 protected:
  void SetUp() override { renameError = GetParam(); }
  void TearDown() override { renameError = 0; }

  void makeFile(const std::string& name, const std::string& text) {
    std::ofstream(folder_ / name) << text;
  }

  /// The system's error, 0 for success.
  int rename(const std::string& from, const std::string& to) {
    try {
      renameWithoutReplacing(AT_FDCWD, folder_ / from, folder_ / to, "renaming");
    } catch (const korvex::receiver::SystemError& error) {
      return error.number();
    }
    return 0;
  }

  TemporaryFolder folder_;
};

}  // namespace

TEST_P(Rename, GivesAFileAFreeName) {
  makeFile("a", "text");
  EXPECT_EQ(rename("a", "b"), 0);
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre("b"));
  EXPECT_EQ(contentsOf(folder_ / "b"), "text");
}

TEST_P(Rename, GivesAFolderAFreeName) {
  folder_.makeFolder("a");
  makeFile("a/file", "text");
  EXPECT_EQ(rename("a", "b"), 0);
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre("b"));
  EXPECT_EQ(contentsOf(folder_ / "b/file"), "text");
}

TEST_P(Rename, NeverReplacesWithAFile) {
  makeFile("a", "new");
  makeFile("file", "old");
  folder_.makeFolder("folder");
  fs::create_symlink("nowhere", folder_ / "link");
  for (const char* taken : {"file", "folder", "link"}) EXPECT_EQ(rename("a", taken), EEXIST);
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre("a", "file", "folder", "link"));
  EXPECT_EQ(contentsOf(folder_ / "file"), "old");
}

TEST_P(Rename, NeverReplacesWithAFolder) {
  folder_.makeFolder("a");
  makeFile("file", "old");
  folder_.makeFolder("folder");
  fs::create_symlink("folder", folder_ / "link");
  for (const char* taken : {"file", "folder", "link"}) EXPECT_EQ(rename("a", taken), EEXIST);
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre("a", "file", "folder", "link"));
}

TEST_P(Rename, OfWhatIsNotThereFails) { EXPECT_EQ(rename("a", "b"), ENOENT); }

TEST_P(Rename, PublishesQueues) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  korvex::receiver::Observer silent;
  const korvex::receiver::Receiver receiver({name, {4, 300}}, nullptr, silent);
  EXPECT_TRUE(korvex::test::queueExists(name) && korvex::test::queueExists(name + "Response"));
}

TEST_P(Rename, PublishesStreams) {
  korvexd::DirectoryStore store(folder_.path());
  store.open("q", 1000000000)->complete({"q", 1000000000, 1000000060, 0, 0, 0, "0"}, [] {
    return true;
  });
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre("q-20010909T014640Z-1"));
}

INSTANTIATE_TEST_SUITE_P(Systems, Rename, testing::Values(0, EINVAL, ENOSYS),
                         [](const auto& error) {
                           return error.param == 0        ? "Able"
                                  : error.param == EINVAL ? "FileSystemCannot"
                                                          : "KernelCannot";
                         });
