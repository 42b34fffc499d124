#include <algorithm>
#include <atomic>
#include <chrono>
#include <errno.h>
#include <gmock/gmock.h>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "korvexd/log/LogWriter.h"
#include "support/Await.h"

using korvex::test::eventually;
using korvexd::LogWriter;
using testing::ElementsAre;
using testing::EndsWith;

namespace {

constexpr int kLog = 4711;  // no descriptor: nothing real is written

std::mutex mutex;
std::string written;
std::size_t room = 0;  // bytes that the disk has still
std::atomic<unsigned> refusals{0};

ssize_t writeToDisk(const char* bytes, std::size_t size) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (room == 0) {
    ++refusals;
    errno = ENOSPC;
    return -1;
  }
  const std::size_t taken = std::min(size, room);
  room -= taken;
  written.append(bytes, taken);
  return static_cast<ssize_t>(taken);
}

}  // namespace

/// In place of the system's function.
extern "C" ssize_t write(int file, const void* bytes, std::size_t size) {
  if (file == kLog) return writeToDisk(static_cast<const char*>(bytes), size);
  return ::syscall(SYS_write, file, bytes, size);
}

namespace {

/// A log on a disk that is full at first.
class LogOnFullDisk : public testing::Test {
 protected:
  LogOnFullDisk() {
    written.clear();
    refusals = 0;
    setRoom(0);
  }

  static void setRoom(std::size_t bytes) {
    const std::lock_guard<std::mutex> lock(mutex);
    room = bytes;
  }

  /// Adds a line that finds no room.
  void lose(const std::string& line) {
    const unsigned before = refusals;
    writer_->add(line + "\n");
    ASSERT_TRUE(eventually([&] { return refusals > before; }));
  }

  /// What the log holds when its writer is gone.
  std::vector<std::string> lines() {
    writer_.reset();
    std::istringstream stream(written);
    std::vector<std::string> found;
    for (std::string line; std::getline(stream, line);) found.push_back(line);
    return found;
  }

  std::unique_ptr<LogWriter> writer_ = std::make_unique<LogWriter>(kLog, std::chrono::seconds(60));
};

const char kTwoMissing[] = "[warning] 2 log lines are missing here: they could not be written";

}  // namespace

TEST_F(LogOnFullDisk, SaysHowManyLinesItLostBeforeTheNext) {
  lose("one");
  lose("two");
  setRoom(1000);
  writer_->add("three\n");
  EXPECT_THAT(lines(), ElementsAre(EndsWith(kTwoMissing), "three"));
}

TEST_F(LogOnFullDisk, SaysItAtTheEndWhenNoLineFollows) {
  lose("one");
  lose("two");
  setRoom(1000);
  EXPECT_THAT(lines(), ElementsAre(EndsWith(kTwoMissing)));
}

TEST_F(LogOnFullDisk, CountsALineThatWasCut) {
  setRoom(2);
  lose("one");
  lose("two");
  setRoom(1000);
  writer_->add("three\n");
  EXPECT_THAT(lines(), ElementsAre("on", EndsWith(kTwoMissing), "three"));
}

TEST_F(LogOnFullDisk, SaysNothingWhenNothingWasLost) {
  setRoom(1000);
  writer_->add("one\n");
  EXPECT_THAT(lines(), ElementsAre("one"));
}
