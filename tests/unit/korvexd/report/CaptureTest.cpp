#include <cstdio>
#include <gmock/gmock.h>
#include <unistd.h>

#include "korvex/receiver/SystemError.h"
#include "korvexd/report/Capture.h"
#include "support/TemporaryFolder.h"

using korvex::test::contentsOf;
using korvex::test::namesIn;
using korvex::test::TemporaryFolder;
using korvexd::Capture;
using testing::ElementsAre;

namespace {

void store(Capture& capture, std::uint64_t number, const std::string& text) {
  capture.store(number, reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

/// What storing a message throws; empty when it is stored.
std::string refusalOf(Capture& capture, std::uint64_t number) {
  try {
    store(capture, number, "x");
    return "";
  } catch (const std::exception& error) {
    return error.what();
  }
}

}  // namespace

TEST(Capture, KeepsMessagesAsTheyCame) {
  const TemporaryFolder folder;
  Capture capture(folder.path(), "q");
  store(capture, 1, std::string("\0\xff raw", 6));
  store(capture, 123456789, "");
  EXPECT_THAT(namesIn(folder.path()), ElementsAre("q-00000001.batch", "q-123456789.batch"));
  EXPECT_EQ(contentsOf(folder / "q-00000001.batch"), std::string("\0\xff raw", 6));
}

TEST(Capture, EncodesTheQueuesName) {
  const TemporaryFolder folder;
  Capture capture(folder.path(), "../a");
  store(capture, 1, "x");
  EXPECT_THAT(namesIn(folder.path()), ElementsAre("%2E.%2Fa-00000001.batch"));
}

TEST(Capture, GoesOnAfterTheNumbersOfAnEarlierDaemon) {
  const TemporaryFolder folder;
  Capture first(folder.path(), "q");
  EXPECT_EQ(first.lastNumber(), 0u);
  store(first, 41, "x");
  store(first, 9, "x");
  Capture other(folder.path(), "q-1");
  store(other, 77, "x");
  EXPECT_EQ(Capture(folder.path(), "q").lastNumber(), 41u);
}

TEST(Capture, GoesOnAfterNumbersOfMoreDigitsThanUsual) {
  const TemporaryFolder folder;
  Capture capture(folder.path(), "q");
  for (const std::uint64_t number : {99999999u, 100000000u, 4000000000u}) {
    store(capture, number, "x");
    EXPECT_EQ(Capture(folder.path(), "q").lastNumber(), number);
  }
  store(capture, 999999999999999999u, "x");
  EXPECT_EQ(Capture(folder.path(), "q").lastNumber(), 999999999999999999u);
}

TEST(CaptureUntrusted, IgnoresFilesOfOtherNames) {
  const TemporaryFolder folder;
  for (const char* name :
       {"q-1.batch", "q-0000000x.batch", "q-00000007.txt", "r-00000008.batch",
        "q-1000000000000000000.batch", "q-99999999999999999999.batch", "q-.batch",
        "q-1234567.batch", "p-00000008.batch", "q-00000009.batches"}) {
    folder.makeFolder(name);
  }
  EXPECT_EQ(Capture(folder.path(), "q").lastNumber(), 0u);
}

TEST(Capture, NeverReplacesACapturedMessage) {
  const TemporaryFolder folder;
  Capture capture(folder.path(), "q");
  store(capture, 1, "first");
  EXPECT_THROW(store(capture, 1, "second"), korvex::receiver::SystemError);
  EXPECT_EQ(contentsOf(folder / "q-00000001.batch"), "first");
}

TEST(Capture, StoresNothingInAFolderThatWasMoved) {
  const TemporaryFolder folder;
  const std::string path = folder.makeFolder("captured");
  Capture capture(path, "q");
  ASSERT_EQ(std::rename(path.c_str(), (folder / "moved").c_str()), 0);
  EXPECT_EQ(refusalOf(capture, 1), "capture folder was moved, replaced or unmounted: " + path);
  folder.makeFolder("captured");
  EXPECT_EQ(refusalOf(capture, 2), "capture folder was moved, replaced or unmounted: " + path);
  EXPECT_THAT(namesIn(folder / "moved"), testing::IsEmpty());
  ASSERT_EQ(::rmdir(path.c_str()), 0);
  ASSERT_EQ(std::rename((folder / "moved").c_str(), path.c_str()), 0);
  EXPECT_EQ(refusalOf(capture, 3), "") << "it is back";
}

TEST(Capture, GoesOnInTheFolderMadeAnew) {
  const TemporaryFolder folder;
  const std::string path = folder.makeFolder("captured");
  Capture capture(path, "q");
  ASSERT_EQ(::rmdir(path.c_str()), 0);
  EXPECT_EQ(refusalOf(capture, 1),
            "opening capture folder " + path + ": error 2 (No such file or directory)");
  folder.makeFolder("captured");
  store(capture, 2, "x");
  EXPECT_THAT(namesIn(path), ElementsAre("q-00000002.batch"));
}

TEST(Capture, NamesAMissingFolder) {
  EXPECT_THROW(Capture("/nonexistent", "q"), korvex::receiver::SystemError);
}
