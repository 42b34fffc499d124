#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <gmock/gmock.h>
#include <memory>
#include <set>
#include <signal.h>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "korvexd/log/LogWriter.h"
#include "support/BlockedSignals.h"

using korvexd::LogWriter;
using testing::AnyOf;
using testing::ElementsAre;
using testing::EndsWith;

namespace {

constexpr std::chrono::seconds kLong{60};
constexpr std::chrono::milliseconds kShort{20};

/// A pipe that a test may fill, and read or not.
class LogWriterLines : public testing::Test {
 protected:
  LogWriterLines() {
    EXPECT_EQ(::pipe(ends_), 0);
    ::fcntl(ends_[1], F_SETPIPE_SZ, 4096);
  }
  ~LogWriterLines() override {
    closeReadingEnd();
    closeWritingEnd();
  }

  int writingEnd() const { return ends_[1]; }

  void closeReadingEnd() { closeEnd(ends_[0]); }
  void closeWritingEnd() { closeEnd(ends_[1]); }

  /// Leaves the end to a thread that may still write into it.
  int giveWritingEndAway() { return std::exchange(ends_[1], -1); }

  /// Bytes in the pipe.
  int waiting() const {
    int count = -1;
    EXPECT_EQ(::ioctl(ends_[0], FIONREAD, &count), 0);
    return count;
  }

  void setNonBlocking(bool on) const { ::fcntl(ends_[1], F_SETFL, on ? O_NONBLOCK : 0); }

  /// Leaves no room for a single byte.
  void fill() const {
    setNonBlocking(true);
    while (::write(ends_[1], "\n", 1) == 1) {
    }
    setNonBlocking(false);
  }

  /// Everything until the writing end is closed, without empty lines.
  std::vector<std::string> readAll() const {
    std::string text;
    char bytes[4096];
    for (ssize_t size = 1; size > 0; text.append(bytes, static_cast<std::size_t>(size)))
      size = ::read(ends_[0], bytes, sizeof bytes);
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
      if (!line.empty()) lines.push_back(line);
    return lines;
  }

 private:
  static void closeEnd(int& end) {
    if (end >= 0) ::close(end);
    end = -1;
  }

  int ends_[2];
};

std::set<pid_t> threads() {
  std::set<pid_t> ids;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    ids.insert(std::stoi(entry.path().filename()));
  }
  return ids;
}

/// The number in a line that says how many are missing; 0 for any other.
std::size_t missingOf(const std::string& line) {
  static const std::string before = "[korvexd] [warning] ";
  static const std::string after = " log lines are missing here: they were not read in time";
  const std::size_t at = line.find(before);
  if (at == std::string::npos) return 0;
  const std::string number = line.substr(at + before.size());
  EXPECT_THAT(number, EndsWith(after));
  return std::stoul(number);
}

}  // namespace

TEST_F(LogWriterLines, LeaveSignalsToOtherThreads) {
  std::thread([] {}).join();  // with the first one the thread sanitizer starts its own
  const std::set<pid_t> before = threads();
  const LogWriter writer(writingEnd(), kLong);
  std::set<pid_t> added = threads();
  for (const pid_t thread : before) added.erase(thread);
  EXPECT_EQ(added.size(), 1u);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) {
    for (const pid_t thread : added) EXPECT_TRUE(korvex::test::blocks(thread, signal)) << signal;
    EXPECT_FALSE(korvex::test::blocks(::getpid(), signal)) << signal;
  }
}

TEST_F(LogWriterLines, AreAllWrittenInOrderBeforeItGoes) {
  auto lines = std::async(std::launch::async, [this] { return readAll(); });
  auto writer = std::make_unique<LogWriter>(writingEnd(), kLong);
  for (int i = 1; i <= 5000; ++i) writer->add(std::to_string(i) + "\n");
  writer.reset();
  closeWritingEnd();
  const std::vector<std::string> found = lines.get();
  ASSERT_EQ(found.size(), 5000u);
  for (std::size_t i = 0; i < found.size(); ++i) ASSERT_EQ(found[i], std::to_string(i + 1));
}

TEST_F(LogWriterLines, GiveWayToNewerOnesAndAreCounted) {
  constexpr std::size_t kAdded = LogWriter::kMostLines + 100;
  const std::uint64_t lostBefore = korvexd::logLosses().unread;
  fill();
  auto writer = std::make_unique<LogWriter>(writingEnd(), kLong);
  for (std::size_t i = 1; i <= kAdded; ++i) writer->add(std::to_string(i) + "\n");
  auto lines = std::async(std::launch::async, [this] { return readAll(); });
  writer.reset();
  closeWritingEnd();
  std::size_t number = 0;  // of the line that was found or is known to be missing
  std::size_t missing = 0;
  for (const std::string& line : lines.get()) {
    const std::size_t here = missingOf(line);
    missing += here;
    number += here == 0 ? 1 : here;
    ASSERT_TRUE(here != 0 || line == std::to_string(number)) << line;
  }
  EXPECT_EQ(number, kAdded);
  // One line may have been on its way already, and a notice too.
  EXPECT_THAT(missing, AnyOf(99u, 100u));
  EXPECT_EQ(korvexd::logLosses().unread - lostBefore, missing);
}

TEST_F(LogWriterLines, DelayTheEndOnlyBrieflyWhenNobodyReads) {
  fill();
  auto writer = std::make_unique<LogWriter>(giveWritingEndAway(), kShort);
  writer->add("unread\n");
  const auto start = std::chrono::steady_clock::now();
  writer.reset();
  EXPECT_GE(std::chrono::steady_clock::now() - start, kShort);
  closeReadingEnd();  // lets the thread end
}

TEST_F(LogWriterLines, AreWrittenOnceTheyAreFlushed) {
  LogWriter writer(writingEnd(), kLong);
  for (int i = 0; i < 100; ++i) {
    writer.add("1234567\n");
    writer.flush();
    EXPECT_EQ(waiting(), 8 * (i + 1));
  }
}

TEST_F(LogWriterLines, DelayAFlushOnlyBrieflyWhenNobodyReads) {
  fill();
  auto writer = std::make_unique<LogWriter>(giveWritingEndAway(), kShort);
  writer->add("unread\n");
  const auto start = std::chrono::steady_clock::now();
  writer->flush();
  writer->flush();  // by now the line is on its way
  EXPECT_GE(std::chrono::steady_clock::now() - start, 2 * kShort);
  closeReadingEnd();
}

TEST_F(LogWriterLines, ReachANonBlockingDescriptorWhole) {
  setNonBlocking(true);
  auto lines = std::async(std::launch::async, [this] { return readAll(); });
  auto writer = std::make_unique<LogWriter>(writingEnd(), kLong);
  const std::string longLine(100000, 'x');
  writer->add(longLine + "\n");
  writer->add("end\n");
  writer.reset();
  closeWritingEnd();
  EXPECT_THAT(lines.get(), ElementsAre(longLine, "end"));
}

// It would end the process, which waits for it elsewhere.
TEST(LogWriterThread, TakesNoSignals) {
  LogWriter writer(STDERR_FILENO, kLong);
  sigset_t signals;
  sigset_t before;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &signals, &before);
  ::kill(::getpid(), SIGUSR1);
  EXPECT_EQ(::sigtimedwait(&signals, nullptr, nullptr), SIGUSR1);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}
