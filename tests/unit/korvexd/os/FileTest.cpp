#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "korvex/receiver/SystemError.h"
#include "korvexd/os/File.h"
#include "support/TemporaryFolder.h"

using korvex::test::contentsOf;
using korvex::test::namesIn;
using korvex::test::TemporaryFolder;
using korvexd::File;
using korvexd::replaceFile;
using testing::ElementsAre;

namespace {

bool isOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) >= 0; }

mode_t modeOf(const std::string& path) {
  struct stat found = {};
  return ::stat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
}

}  // namespace

TEST(File, IsClosedWhenItGoes) {
  const int descriptor = ::dup(STDIN_FILENO);
  {
    const File file(descriptor);
    EXPECT_TRUE(isOpen(descriptor));
  }
  EXPECT_FALSE(isOpen(descriptor));
}

TEST(File, IsClosedOnceByItsLastOwner) {
  File first(::dup(STDIN_FILENO));
  const int descriptor = first.descriptor();
  {
    const File second(std::move(first));
    EXPECT_EQ(second.descriptor(), descriptor);
    EXPECT_EQ(first.descriptor(), -1);
  }
  EXPECT_FALSE(isOpen(descriptor));
}

TEST(File, GivesUpItsOwnForAnother) {
  const int own = ::dup(STDIN_FILENO);
  const int other = ::dup(STDIN_FILENO);
  {
    File file(own);
    file = File(other);
    EXPECT_EQ(file.descriptor(), other);
    EXPECT_FALSE(isOpen(own));
  }
  EXPECT_FALSE(isOpen(other));
}

TEST(File, HasTheModeAskedForWhateverTheUmask) {
  const TemporaryFolder folder;
  for (const mode_t mask : {0U, 022U, 077U}) {
    const mode_t before = ::umask(mask);
    replaceFile(AT_FDCWD, folder / "file", "text", 0644, "writing");
    ::umask(before);
    EXPECT_EQ(modeOf(folder / "file"), 0644u) << mask;
  }
}

TEST(File, ThatExistsKeepsItsMode) {
  const TemporaryFolder folder;
  replaceFile(AT_FDCWD, folder / "file", "text", 0640, "writing");
  File::openAt(AT_FDCWD, folder / "file", O_RDONLY, 0600, "reading");
  EXPECT_EQ(modeOf(folder / "file"), 0640u);
}

TEST(File, ThatCannotBeOpenedIsNamed) {
  for (const auto& open : {+[] { File::openFolder("/nonexistent", "opening it"); },
                           +[] { File::openAt(AT_FDCWD, "/nonexistent", 0, 0, "opening it"); }}) {
    try {
      open();
      FAIL() << "opened";
    } catch (const korvex::receiver::SystemError& error) {
      EXPECT_STREQ(error.what(), "opening it: error 2 (No such file or directory)");
    }
  }
}

TEST(File, OfAFolderIsAFolderAndNobodyElses) {
  const TemporaryFolder folder;
  const File opened = File::openFolder(folder.path(), "opening");
  EXPECT_EQ(::fcntl(opened.descriptor(), F_GETFD), FD_CLOEXEC);
  replaceFile(AT_FDCWD, folder / "file", "text", 0600, "writing");
  EXPECT_THROW(File::openFolder(folder / "file", "opening"), korvex::receiver::SystemError);
}

TEST(File, IsReplacedByANewOne) {
  const TemporaryFolder folder;
  replaceFile(AT_FDCWD, folder / "file", "a long old text", 0600, "writing");
  replaceFile(AT_FDCWD, folder / "file", "new", 0600, "writing");
  EXPECT_EQ(contentsOf(folder / "file"), "new");
  EXPECT_THAT(namesIn(folder.path()), ElementsAre("file"));
}

TEST(File, ThatCannotBeReplacedLeavesNothingTemporary) {
  const TemporaryFolder folder;
  folder.makeFolder("file");
  EXPECT_THROW(replaceFile(AT_FDCWD, folder / "file", "text", 0600, "writing"),
               korvex::receiver::SystemError);
  EXPECT_THAT(namesIn(folder.path()), ElementsAre("file"));
}
