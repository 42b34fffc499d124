#include <fstream>
#include <gmock/gmock.h>
#include <korvex/receiver/Limits.h>
#include <unistd.h>

#include "Failure.h"
#include "inspect/CaptureFile.h"
#include "support/TemporaryFolder.h"
#include "support/WireFormat.h"

namespace {

using korvex::receiver::Limits;
using korvex::test::BatchBytes;
using korvex::tool::captureFileOf;
using korvex::tool::Failure;
using korvex::tool::inBatchOrder;
using korvex::tool::readUntrusted;
using korvex::tool::StopSignal;
using testing::ElementsAre;
using testing::HasSubstr;

std::vector<std::string> sorted(const std::vector<std::string>& paths) {
  std::vector<std::string> found;
  for (const auto& file : inBatchOrder(paths)) found.push_back(file.path);
  return found;
}

class CaptureFileReading : public testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& content) const {
    std::ofstream(folder_ / name, std::ios::binary) << content;
    return folder_ / name;
  }

  std::size_t sizeRead(const std::string& path) const {
    return readUntrusted(captureFileOf(path), stop_).size();
  }

  std::string failureOf(const std::string& path) const {
    try {
      sizeRead(path);
    } catch (const Failure& failure) {
      return failure.what();
    }
    return "";
  }

  korvex::test::TemporaryFolder folder_;
  StopSignal stop_;
};

std::string textOf(const korvex::test::Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

}  // namespace

TEST(CaptureFileName, HasTheNumberThatTheDaemonGives) {
  const auto file = captureFileOf("cap/my-queue-00000042.batch");
  EXPECT_EQ(file.number, 42u);
  EXPECT_EQ(file.capture, "cap/my-queue");
  EXPECT_EQ(captureFileOf("q-123456789.batch").number, 123456789u);
  EXPECT_EQ(captureFileOf("q-999999999999999999.batch").number, 999999999999999999u);
}

TEST(CaptureFileName, HasNoNumberInAnyOtherForm) {
  for (const char* path :
       {"-", "", "q", "q.batch", "q-1.batch", "q-0000001.batch", "q-00000001",
        "q-0000000000000000001.batch", "q00000001.batch", "-00000001.batch", "cap/-00000001.batch",
        "q-00000001.batches", "q-0000000a.batch", "00000001.batch", "q-00000001.batch/x"}) {
    EXPECT_FALSE(captureFileOf(path).number) << path;
    EXPECT_EQ(captureFileOf(path).capture, path);
  }
  EXPECT_EQ(captureFileOf("-").title(), "standard input");
}

TEST(CaptureFileOrder, IsByNumberWithinEachCapture) {
  EXPECT_THAT(sorted({"b-100000000.batch", "a-00000002.batch", "b-99999999.batch",
                      "a-00000001.batch", "b-00000003.batch"}),
              ElementsAre("b-00000003.batch", "b-99999999.batch", "b-100000000.batch",
                          "a-00000001.batch", "a-00000002.batch"));
}

TEST(CaptureFileOrder, LeavesFilesWithoutNumbersInPlace) {
  EXPECT_THAT(sorted({"z", "q-00000002.batch", "-", "q-00000001.batch", "a"}),
              ElementsAre("z", "q-00000001.batch", "q-00000002.batch", "-", "a"));
}

TEST(CaptureFileOrder, KeepsFoldersApart) {
  EXPECT_THAT(sorted({"y/q-00000002.batch", "x/q-00000001.batch", "y/q-00000001.batch"}),
              ElementsAre("y/q-00000001.batch", "y/q-00000002.batch", "x/q-00000001.batch"));
}

TEST_F(CaptureFileReading, GivesAllBytesOfABatch) {
  const std::string data(1000000, 'x');
  const auto batch = textOf(BatchBytes().record(1, 2, data).bytes());
  EXPECT_EQ(sizeRead(write("whole", batch)), 1000056u);
}

TEST_F(CaptureFileReading, StopsEarlyInWhatIsNoBatch) {
  EXPECT_EQ(sizeRead("/dev/zero"), 8u);
  EXPECT_EQ(sizeRead(write("text", std::string(100, 'x'))), 8u);
  EXPECT_EQ(sizeRead(write("short", "abc")), 3u);
}

TEST_F(CaptureFileReading, RefusesMoreThanTheLargestBatch) {
  const std::string path = write("huge", textOf(BatchBytes().bytes()));
  ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(Limits::kLargestMessage + 1)), 0);
  EXPECT_THAT(failureOf(path), HasSubstr("huge' is larger than any batch: expected at most "
                                         "1073741824 bytes"));
}

TEST_F(CaptureFileReading, NamesWhatCannotBeRead) {
  EXPECT_EQ(failureOf("/nowhere"), "cannot read '/nowhere': No such file or directory");
  EXPECT_THAT(failureOf(folder_.path()), HasSubstr("': Is a directory"));
  EXPECT_THAT(failureOf(write("empty", "")), HasSubstr("empty' is empty, expected a batch"));
}
