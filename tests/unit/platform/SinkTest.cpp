#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmx/error.h>
#include <qmx/log.h>
#include <qmx/sink.h>
#include <stdexcept>
#include <unistd.h>

#include "unit/platform/Support.h"

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

enum class Kind { StandardError, File };

/// What every sink that writes laid-out lines must do. Each test finds the lines in output_.
class StreamSink : public testing::TestWithParam<Kind> {
 protected:
  StreamSink() : output_(folder_.path("output")) {
    if (GetParam() == Kind::StandardError) {
      redirection_ = std::make_unique<StandardErrorInto>(output_);
      qmx::logToStandardError();
    } else {
      qmx::logToFile(output_);
    }
  }
  ~StreamSink() override { qmx::logToStandardError(); }

  const TemporaryFolder folder_;
  const std::string output_;
  std::unique_ptr<StandardErrorInto> redirection_;
};

INSTANTIATE_TEST_SUITE_P(All, StreamSink, testing::Values(Kind::StandardError, Kind::File),
                         [](const testing::TestParamInfo<Kind>& kind) {
                           return kind.param == Kind::File ? "File" : "StandardError";
                         });

TEST_P(StreamSink, LineCarriesTimeLevelProcessIdAndCode) {
  WarningA(-1, "hello %d", 5);
  const std::string rest = " WARNING pid=" + std::to_string(::getpid()) + " code=-1 hello 5\n";
  EXPECT_THAT(contentOf(output_),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}"
                           "[+-][0-9]{2}:[0-9]{2}" +
                           rest));
}

TEST_P(StreamSink, LevelsAreWords) {
  InfoA(1, "a");
  AuthA(2, "b");
  WarningA(3, "c");
  ErrorA(4, "d");
  __TraceA("e");
  const std::string pid = "pid=" + std::to_string(::getpid());
  std::vector<std::string> lines;
  for (const std::string& line : linesOf(output_)) lines.push_back(withoutTime(line));
  EXPECT_THAT(lines, ElementsAre("INFO " + pid + " code=1 a", "AUTH " + pid + " code=2 b",
                                 "WARNING " + pid + " code=3 c", "ERROR " + pid + " code=4 d",
                                 "TRACE " + pid + " code=0 e"));
}

TEST_P(StreamSink, LongLineIsWrittenWhole) {
  const std::string text(1 << 20, 'x');
  InfoA(1, "%s!", text.c_str());
  ASSERT_EQ(linesOf(output_).size(), 1u);
  EXPECT_EQ(textOf(linesOf(output_)[0]), text + "!");
}

TEST_P(StreamSink, ControlCharactersCannotForgeALine) {
  InfoA(1, "%s", "a\n2031-01-01 b\r\tc\x1b[2Jd\x7f");
  ASSERT_EQ(linesOf(output_).size(), 1u);
  EXPECT_EQ(textOf(linesOf(output_)[0]), "a\\n2031-01-01 b\\r\\tc\\x1b[2Jd\\x7f");
}

TEST_P(StreamSink, BackslashIsDoubledAndOtherBytesStay) {
  InfoA(1, "%s", "C:\\n gr\xc3\xbc\xc3\x9f \"{}\" 100%");
  EXPECT_EQ(textOf(linesOf(output_).at(0)), "C:\\\\n gr\xc3\xbc\xc3\x9f \"{}\" 100%");
}

/// Sets the process's time zone while it lives.
class TimeZone {
 public:
  explicit TimeZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  ~TimeZone() {
    ::unsetenv("TZ");
    ::tzset();
  }
};

/// The moment that a line carries, in milliseconds since 1970.
long long momentOf(const std::string& line) {
  std::tm time{};
  const char* const rest = ::strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &time);
  if (rest == nullptr) throw std::runtime_error("no time in " + line);
  const long offsetMinutes = std::stol(std::string(rest + 5, 2)) * 60 + std::stol(rest + 8);
  const long east = rest[4] == '-' ? -offsetMinutes : offsetMinutes;
  return (::timegm(&time) - east * 60) * 1000LL + std::stol(std::string(rest + 1, 3));
}

long long now() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

class FileSink : public testing::Test {
 protected:
  FileSink() : file_(folder_.path("lines")) {}
  ~FileSink() override { qmx::logToStandardError(); }

  std::string stampIn(const char* zone) const {
    const TimeZone set(zone);
    qmx::logToFile(file_);
    InfoA(1, "x");
    const std::string line = linesOf(file_).back();
    return line.substr(0, line.find(' '));
  }

  const TemporaryFolder folder_;
  const std::string file_;
};

TEST_F(FileSink, TimeIsTheMomentOfTheCall) {
  const long long before = now();
  const std::string stamp = stampIn("XXX-05:45");
  EXPECT_GE(momentOf(stamp), before);
  EXPECT_LE(momentOf(stamp), now());
}

TEST_F(FileSink, OffsetEastOfGreenwichIsPositive) {
  EXPECT_THAT(stampIn("XXX-05:45"), MatchesRegex(".*[+]05:45"));
}

TEST_F(FileSink, OffsetWestOfGreenwichIsNegative) {
  EXPECT_THAT(stampIn("XXX+03:30"), MatchesRegex(".*-03:30"));
}

TEST_F(FileSink, OffsetOfUtcIsZero) { EXPECT_THAT(stampIn("UTC"), MatchesRegex(".*[+]00:00")); }

TEST_F(FileSink, AppendsToWhatIsThere) {
  std::ofstream(file_) << "before\n";
  qmx::logToFile(file_);
  InfoA(1, "a");
  ASSERT_EQ(linesOf(file_).size(), 2u);
  EXPECT_EQ(linesOf(file_)[0], "before");
  EXPECT_EQ(textOf(linesOf(file_)[1]), "a");
}

TEST_F(FileSink, FileThatCannotBeOpenedIsNamed) {
  qmx::logToFile(file_);
  const std::string missing = folder_.path("absent/lines");
  try {
    qmx::logToFile(missing);
    FAIL() << "opened";
  } catch (const Ov_ErrnoException& error) {
    EXPECT_EQ(error.getStatus(), 2u);  // ENOENT
    EXPECT_EQ(error.getMessage(),
              "Could not open log file '" + missing + "' for appending: No such file or directory");
  }
  InfoA(1, "still here");
  EXPECT_EQ(textOf(linesOf(file_).at(0)), "still here");
  EXPECT_FALSE(std::filesystem::exists(folder_.path("absent")));
}

TEST_F(FileSink, FolderIsNoFile) {
  try {
    qmx::logToFile(folder_.path(""));
    FAIL() << "opened";
  } catch (const Ov_ErrnoException& error) {
    EXPECT_EQ(error.getStatus(), 21u);  // EISDIR
  }
}

TEST_F(FileSink, ProgramThatIsStartedDoesNotInheritTheFile) {
  qmx::logToFile(file_);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) != file_) continue;
    const int descriptor = std::stoi(entry.path().filename());
    EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    return;
  }
  FAIL() << "not open";
}

TEST_F(FileSink, ReplacedFileGetsNoMoreLines) {
  qmx::logToFile(file_);
  InfoA(1, "a");
  qmx::logToFile(folder_.path("other"));
  InfoA(1, "b");
  EXPECT_EQ(linesOf(file_).size(), 1u);
  EXPECT_EQ(textOf(linesOf(folder_.path("other")).at(0)), "b");
}

class FailingSink : public FileSink {
 protected:
  FailingSink() : redirection_(file_) {}

  const StandardErrorInto redirection_;
};

TEST_F(FailingSink, LineForAFullDiskGoesToStandardError) {
  qmx::logToFile("/dev/full");
  errno = ENOTTY;
  InfoA(1, "kept\n");
  EXPECT_EQ(errno, ENOTTY);
  ASSERT_EQ(linesOf(file_).size(), 1u);
  EXPECT_EQ(textOf(linesOf(file_)[0]), "kept\\n");
}

TEST_F(FailingSink, LineForAThrowingReceiverGoesToStandardError) {
  qmx::logToCallback([](const qmx::Line&) { throw std::runtime_error("no"); });
  InfoA(1, "kept");
  InfoA(1, "kept too");
  ASSERT_EQ(linesOf(file_).size(), 2u);
  EXPECT_EQ(textOf(linesOf(file_)[1]), "kept too");
}

TEST_F(FailingSink, MissingReceiverLeavesTheLinesToStandardError) {
  qmx::logToCallback(nullptr);
  InfoA(1, "kept");
  EXPECT_EQ(textOf(linesOf(file_).at(0)), "kept");
}

TEST_F(FailingSink, LineThatAReceiverLogsGoesToStandardError) {
  int received = 0;
  qmx::logToCallback([&received](const qmx::Line&) {
    ++received;
    InfoA(2, "inner");
  });
  InfoA(1, "outer");
  EXPECT_EQ(received, 1);
  ASSERT_EQ(linesOf(file_).size(), 1u);
  EXPECT_EQ(textOf(linesOf(file_)[0]), "inner");
}

}  // namespace
