#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "Failure.h"
#include "InputReader.h"
#include "support/RestoredDescriptor.h"

namespace {

using korvex::test::RestoredDescriptor;
using korvex::tool::Failure;
using korvex::tool::InputReader;
using korvex::tool::Interrupted;
using korvex::tool::StopSignal;
using testing::HasSubstr;

/// A folder of its own for every test, and everything in it read through one reader.
class InputReaderFiles : public testing::Test {
 protected:
  InputReaderFiles() {
    std::string name = (std::filesystem::temp_directory_path() / "korvex-input-XXXXXX").string();
    folder_ = ::mkdtemp(name.data());
  }
  ~InputReaderFiles() override { std::filesystem::remove_all(folder_); }

  std::string path(const std::string& name) const { return folder_ / name; }

  std::string file(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }

  std::string pipe(const std::string& name) const {
    EXPECT_EQ(::mkfifo(path(name).c_str(), 0600), 0);
    return path(name);
  }

  static std::string fill(InputReader& reader, std::size_t size) {
    std::string buffer(size, '\0');
    buffer.resize(reader.fill(reinterpret_cast<unsigned char*>(buffer.data()), size));
    return buffer;
  }

  std::string refusal(const std::vector<std::string>& names, int error) {
    try {
      InputReader reader(names, stop);
      ADD_FAILURE() << "not refused";
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.status(), static_cast<unsigned>(error));
      return failure.what();
    }
    return "";
  }

  StopSignal stop;
  std::filesystem::path folder_;
};

int lowestFreeDescriptor() {
  const int found = ::open("/", O_PATH | O_CLOEXEC);
  ::close(found);
  return found;
}

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0); }
  ~Pipe() {
    ::close(ends[0]);
    closeWriter();
  }
  void write(const std::string& text) const {
    EXPECT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void awaitEmpty() const {
    int waiting = 1;
    while (waiting > 0) {
      ASSERT_EQ(::ioctl(ends[0], FIONREAD, &waiting), 0);
      std::this_thread::yield();
    }
  }
  void closeWriter() {
    if (ends[1] >= 0) ::close(ends[1]);
    ends[1] = -1;
  }
  int ends[2];
};

}  // namespace

TEST_F(InputReaderFiles, ReadsFilesOneAfterTheOther) {
  InputReader reader({file("a", "first"), file("b", "second")}, stop);
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 100), "first");
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 100), "second");
  EXPECT_FALSE(reader.openNext());
}

TEST_F(InputReaderFiles, HasOneFileOpenAtATime) {
  const std::vector<std::string> names = {file("a", "first"), file("b", "second")};
  const int unused = lowestFreeDescriptor();
  InputReader reader(names, stop);
  EXPECT_EQ(lowestFreeDescriptor(), unused);
  ASSERT_TRUE(reader.openNext());
  const int free = lowestFreeDescriptor();
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(lowestFreeDescriptor(), free);
}

TEST_F(InputReaderFiles, FillsTheBufferAndGoesOnWhereItStopped) {
  InputReader reader({file("a", "abcdefg")}, stop);
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 3), "abc");
  EXPECT_EQ(fill(reader, 3), "def");
  EXPECT_EQ(fill(reader, 3), "g");
}

TEST_F(InputReaderFiles, ABufferEndingWithTheFileIsTheLast) {
  InputReader reader({file("a", "abc")}, stop);
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 3), "abc");
  EXPECT_EQ(fill(reader, 3), "");
}

TEST_F(InputReaderFiles, AnEmptyFileGivesNothing) {
  InputReader reader({file("empty", "")}, stop);
  EXPECT_EQ(reader.totalBytes(), 0u);
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 3), "");
}

TEST_F(InputReaderFiles, AddsUpTheSizesOfRegularFiles) {
  const InputReader reader({file("a", "first"), file("b", "second")}, stop);
  EXPECT_EQ(reader.totalBytes(), 11u);
}

TEST_F(InputReaderFiles, DoesNotKnowTheSizeOfAPipe) {
  const InputReader reader({file("a", "first"), pipe("p")}, stop);
  EXPECT_FALSE(reader.totalBytes());
}

TEST_F(InputReaderFiles, ReadsAFileThatGrewToItsEnd) {
  const std::string name = file("a", "abc");
  InputReader reader({name}, stop);
  std::ofstream(name, std::ios::app) << "def";
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 100), "abcdef");
}

TEST_F(InputReaderFiles, TakesNamesThatLookLikeAnything) {
  const std::string odd = file("-x\n\x1b \xff'\"*", "odd");
  InputReader reader({odd}, stop);
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 10), "odd");
}

TEST_F(InputReaderFiles, NoNamesMeanStandardInput) {
  Pipe pipe;
  pipe.write("piped");
  pipe.closeWriter();
  const RestoredDescriptor input(STDIN_FILENO, pipe.ends[0]);
  InputReader reader({}, stop);
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 100), "piped");
  EXPECT_FALSE(reader.openNext());
}

TEST_F(InputReaderFiles, ADashIsStandardInputBetweenFiles) {
  Pipe pipe;
  pipe.write("piped");
  pipe.closeWriter();
  const RestoredDescriptor input(STDIN_FILENO, pipe.ends[0]);
  InputReader reader({file("a", "before"), "-"}, stop);
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 100), "before");
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 100), "piped");
}

TEST_F(InputReaderFiles, ReadStandardInputTwice) {
  Pipe pipe;
  pipe.write("piped");
  pipe.closeWriter();
  const RestoredDescriptor input(STDIN_FILENO, pipe.ends[0]);
  InputReader reader({"-", "-"}, stop);
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 100), "piped");
  ASSERT_TRUE(reader.openNext()) << "it stays open";
  EXPECT_EQ(fill(reader, 100), "");
  EXPECT_FALSE(reader.openNext());
}

TEST_F(InputReaderFiles, CountsOnlyWhatIsLeftOfStandardInput) {
  const int half = ::open(file("a", "abcdef").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::lseek(half, 4, SEEK_SET), 4);
  const RestoredDescriptor input(STDIN_FILENO, half);
  ::close(half);
  InputReader reader({}, stop);
  EXPECT_EQ(reader.totalBytes(), 2u);
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 100), "ef");
}

TEST_F(InputReaderFiles, CountNothingBehindTheEndOfStandardInput) {
  const int behind = ::open(file("a", "abc").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::lseek(behind, 4, SEEK_SET), 4);
  const RestoredDescriptor input(STDIN_FILENO, behind);
  ::close(behind);
  EXPECT_EQ(InputReader({}, stop).totalBytes(), 0u);
}

TEST_F(InputReaderFiles, FillsUpWhatAPipeDeliversInBits) {
  Pipe pipe;
  const RestoredDescriptor input(STDIN_FILENO, pipe.ends[0]);
  InputReader reader({}, stop);
  ASSERT_TRUE(reader.openNext());
  auto filled = std::async(std::launch::async, [&] { return fill(reader, 6); });
  for (const char* bit : {"a", "bc", "def"}) {
    pipe.write(bit);
    pipe.awaitEmpty();
  }
  pipe.write("g");
  EXPECT_EQ(filled.get(), "abcdef");
  pipe.closeWriter();
  EXPECT_EQ(fill(reader, 6), "g");
}

TEST_F(InputReaderFiles, ReadsAPipeThatDoesNotBlock) {
  Pipe pipe;
  ASSERT_EQ(::fcntl(pipe.ends[0], F_SETFL, O_NONBLOCK), 0);
  const RestoredDescriptor input(STDIN_FILENO, pipe.ends[0]);
  InputReader reader({}, stop);
  ASSERT_TRUE(reader.openNext());
  auto filled = std::async(std::launch::async, [&] { return fill(reader, 3); });
  pipe.write("abc");
  EXPECT_EQ(filled.get(), "abc");
}

TEST_F(InputReaderFiles, CallsTheIdleActionWhileAPipeIsSilent) {
  Pipe pipe;
  const RestoredDescriptor input(STDIN_FILENO, pipe.ends[0]);
  InputReader reader({}, stop);
  int calls = 0;
  reader.whenIdle([&] {
    if (++calls == 2) pipe.closeWriter();
  });
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 3), "");
  EXPECT_GE(calls, 2);
}

TEST_F(InputReaderFiles, NamesAMissingFile) {
  EXPECT_EQ(refusal({file("a", "x"), path("missing")}, ENOENT),
            "cannot read '" + path("missing") + "': No such file or directory");
}

TEST_F(InputReaderFiles, RefusesADirectoryBeforeAnythingIsRead) {
  EXPECT_EQ(refusal({folder_.string()}, EISDIR),
            "cannot read '" + folder_.string() + "': Is a directory");
}

TEST_F(InputReaderFiles, RefusesADirectoryAsStandardInput) {
  const int directory = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const RestoredDescriptor input(STDIN_FILENO, directory);
  ::close(directory);
  EXPECT_EQ(refusal({}, EISDIR), "cannot read standard input: Is a directory");
}

TEST_F(InputReaderFiles, RefusesAStandardInputThatIsForWritingOnly) {
  Pipe pipe;
  const RestoredDescriptor input(STDIN_FILENO, pipe.ends[1]);
  EXPECT_EQ(refusal({}, EBADF), "cannot read standard input: Bad file descriptor");
}

TEST_F(InputReaderFiles, RefusesASocket) {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {AF_UNIX, {}};
  path("socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(socket);
  EXPECT_EQ(refusal({path("socket")}, ENXIO),
            "cannot read '" + path("socket") + "': No such device or address");
}

TEST_F(InputReaderFiles, RefusesASocketAsStandardInputThatLeadsNowhere) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const RestoredDescriptor input(STDIN_FILENO, socket);
  ::close(socket);
  EXPECT_THAT(refusal({}, ENOTCONN), HasSubstr("cannot read standard input: "));
}

TEST_F(InputReaderFiles, ReadsASocketAsStandardInput) {
  for (const bool isEarly : {false, true}) {  // is there something before the reader looks?
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const RestoredDescriptor input(STDIN_FILENO, ends[0]);
    ::close(ends[0]);
    const auto write = [&] {
      EXPECT_EQ(::write(ends[1], "abc", 3), 3);
      ::close(ends[1]);
    };
    if (isEarly) write();
    InputReader reader({}, stop);
    if (!isEarly) write();
    ASSERT_TRUE(reader.openNext());
    EXPECT_EQ(fill(reader, 10), "abc");
  }
}

TEST_F(InputReaderFiles, RefusesADeviceThatIsNotThere) {
  const dev_t unassigned = ::makedev(60, 200);  // for local use
  if (::mknod(path("device").c_str(), S_IFCHR | 0600, unassigned) != 0) {
    GTEST_SKIP() << "this user may make no devices";
  }
  EXPECT_EQ(refusal({path("device")}, ENXIO),
            "cannot read '" + path("device") + "': No such device or address");
}

TEST_F(InputReaderFiles, CallsTheIdleActionWithoutAPipesWriter) {
  const std::string name = pipe("p");
  InputReader reader({name}, stop);
  int calls = 0;
  reader.whenIdle([&] {
    if (++calls != 2) return;
    const int writer = ::open(name.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(::write(writer, "abc", 3), 3);
    ::close(writer);
  });
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 10), "abc");
  EXPECT_GE(calls, 2);
}

TEST_F(InputReaderFiles, CallsTheIdleActionWhileAPipeTrickles) {
  Pipe pipe;
  const RestoredDescriptor input(STDIN_FILENO, pipe.ends[0]);
  InputReader reader({}, stop);
  int calls = 0;
  reader.whenIdle([&] { ++calls; });
  pipe.write("abc");
  ASSERT_TRUE(reader.openNext());
  EXPECT_EQ(fill(reader, 3), "abc");
  EXPECT_EQ(calls, 1) << "although there was something to read all the time";
}

TEST_F(InputReaderFiles, RefusesAForbiddenFile) {
  if (::geteuid() == 0) GTEST_SKIP() << "nothing is forbidden to this user";
  const std::string name = file("secret", "x");
  ASSERT_EQ(::chmod(name.c_str(), 0), 0);
  EXPECT_THAT(refusal({name}, EACCES), HasSubstr("Permission denied"));
}

TEST_F(InputReaderFiles, MakesAHostileNameHarmlessInTheError) {
  EXPECT_THAT(refusal({path("a\x1b[2J\n")}, ENOENT), HasSubstr("a\\x1b[2J\\x0a'"));
}

TEST_F(InputReaderFiles, NamesAFileThatVanishedMeanwhile) {
  const std::string name = file("a", "x");
  InputReader reader({name}, stop);
  std::filesystem::remove(name);
  EXPECT_THROW(reader.openNext(), Failure);
}

TEST_F(InputReaderFiles, NamesAFileWhoseReadingFails) {
  // Readable to look at; reading the first page of the address space is an input/output error.
  InputReader reader({"/proc/self/mem"}, stop);
  ASSERT_TRUE(reader.openNext());
  try {
    fill(reader, 10);
    FAIL() << "not refused";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status(), static_cast<unsigned>(EIO));
    EXPECT_STREQ(failure.what(), "cannot read '/proc/self/mem': Input/output error");
  }
}

TEST_F(InputReaderFiles, ASignalEndsTheWaitForAPipe) {
  Pipe pipe;
  const RestoredDescriptor input(STDIN_FILENO, pipe.ends[0]);
  InputReader reader({}, stop);
  ASSERT_TRUE(reader.openNext());
  auto filled = std::async(std::launch::async, [&] { return fill(reader, 3); });
  stop.note(SIGTERM);
  EXPECT_THROW(filled.get(), Interrupted);
}

TEST_F(InputReaderFiles, ASignalComesBeforeTheNextFile) {
  InputReader reader({file("a", "abc")}, stop);
  stop.note(SIGINT);
  EXPECT_THROW(reader.openNext(), Interrupted);
}

TEST_F(InputReaderFiles, ASignalEndsTheReadingOfAFile) {
  InputReader reader({file("a", "abc")}, stop);
  ASSERT_TRUE(reader.openNext());
  stop.note(SIGINT);
  EXPECT_THROW(fill(reader, 3), Interrupted);
}
