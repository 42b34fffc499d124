#include <algorithm>
#include <atomic>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <qmx/log.h>
#include <qmx/sink.h>
#include <qmx/trace.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "unit/platform/Support.h"

namespace {

constexpr int kThreads = 8;
constexpr int kLinesPerThread = 200;
const std::string kPadding(5000, 'x');

void writeLines(int thread) {
  for (int i = 0; i < kLinesPerThread; ++i) InfoA(thread, "%d/%d %s", thread, i, kPadding.c_str());
}

void runThreads(const std::function<void(int)>& work) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) threads.emplace_back(work, thread);
  for (std::thread& thread : threads) thread.join();
}

std::vector<std::string> everyText() {
  std::vector<std::string> texts;
  for (int thread = 0; thread < kThreads; ++thread) {
    for (int i = 0; i < kLinesPerThread; ++i) {
      texts.push_back(std::to_string(thread) + "/" + std::to_string(i) + " " + kPadding);
    }
  }
  std::sort(texts.begin(), texts.end());
  return texts;
}

/// Writes lines from threads of its own while it lives.
class BusyWriters {
 public:
  BusyWriters() {
    for (int i = 0; i < 3; ++i) threads_.emplace_back([this] { run(); });
  }
  ~BusyWriters() {
    isDone_ = true;
    for (std::thread& thread : threads_) thread.join();
  }

 private:
  void run() {
    while (!isDone_) InfoA(1, "busy");
  }

  std::atomic<bool> isDone_{false};
  std::vector<std::thread> threads_;
};

void waitFor(const std::function<bool()>& isReached) {
  while (!isReached()) std::this_thread::yield();
}

class SinkThreads : public testing::Test {
 protected:
  SinkThreads() : file_(folder_.path("lines")), other_(folder_.path("other")) {}
  ~SinkThreads() override { qmx::logToStandardError(); }

  std::vector<std::string> sortedTexts() const {
    std::vector<std::string> texts;
    for (const std::string& path : {file_, other_}) {
      for (const std::string& line : linesOf(path)) texts.push_back(textOf(line));
    }
    std::sort(texts.begin(), texts.end());
    return texts;
  }

  const TemporaryFolder folder_;
  const std::string file_;
  const std::string other_;
};

TEST_F(SinkThreads, LinesOfManyThreadsAreWhole) {
  qmx::logToFile(file_);
  runThreads(writeLines);
  EXPECT_TRUE(sortedTexts() == everyText());  // no EXPECT_EQ: it would print megabytes
}

TEST_F(SinkThreads, NoLineIsLostWhileTheSinkIsReplaced) {
  qmx::logToFile(file_);
  std::atomic<bool> isDone{false};
  std::thread replacer([&] {
    for (bool first = false; !isDone; first = !first) qmx::logToFile(first ? file_ : other_);
  });
  runThreads(writeLines);
  isDone = true;
  replacer.join();
  EXPECT_TRUE(sortedTexts() == everyText());
}

TEST_F(SinkThreads, ReplacedReceiverIsNotCalledAnyMore) {
  std::atomic<int> later{0};
  int replaced = 0;  // not atomic: whoever still called the receiver would race with the test
  qmx::logToCallback([&replaced](const qmx::Line&) { ++replaced; });
  const BusyWriters writers;
  qmx::logToCallback([&later](const qmx::Line&) { ++later; });
  const int atReplacement = replaced;
  waitFor([&later] { return later > 100; });
  EXPECT_EQ(replaced, atReplacement);
}

TEST_F(SinkThreads, ReceiverIsCalledByOneThreadAtATime) {
  int received = 0;  // not atomic: the thread sanitizer and the sum would tell
  qmx::logToCallback([&received](const qmx::Line&) { ++received; });
  runThreads(writeLines);
  EXPECT_EQ(received, kThreads * kLinesPerThread);
}

TEST_F(SinkThreads, TracingIsSwitchedByManyThreads) {
  runThreads([](int thread) { qmx::setTracing(thread % 2 == 0); });
  qmx::setTracing(false);
  EXPECT_EQ(*__qmxlog_trace_location(), 0u);
}

/// Runs the work in a child process; a child that hangs is ended by its alarm and fails the test.
pid_t runInChild(const std::function<void()>& work) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(30);
    work();
    ::_exit(0);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0) << "the child was ended or failed";
  return child;
}

TEST_F(SinkThreads, ForkedChildWritesItsOwnProcessId) {
  qmx::logToFile(file_);
  InfoA(1, "parent");
  const pid_t child = runInChild([] { InfoA(1, "child"); });
  InfoA(1, "parent");
  std::vector<std::string> lines;
  for (const std::string& line : linesOf(file_)) lines.push_back(withoutTime(line));
  const std::string parentLine = "INFO pid=" + std::to_string(::getpid()) + " code=1 parent";
  const std::string childLine = "INFO pid=" + std::to_string(child) + " code=1 child";
  EXPECT_THAT(lines, testing::ElementsAre(parentLine, childLine, parentLine));
}

TEST_F(SinkThreads, ChildThatIsForkedWhileOthersWriteCanWrite) {
  qmx::logToFile(file_);
  {
    const BusyWriters writers;
    for (int i = 0; i < 50 && !HasFailure(); ++i) runInChild([] { InfoA(1, "child"); });
  }
  const std::vector<std::string> texts = sortedTexts();
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "child"), 50);
}

TEST_F(SinkThreads, ReceiverMayFork) {
  pid_t child = 0;
  qmx::logToCallback([&child](const qmx::Line&) { child = runInChild([] {}); });
  InfoA(1, "a");
  EXPECT_GT(child, 0);
  qmx::logToFile(file_);
  InfoA(1, "b");
  EXPECT_EQ(linesOf(file_).size(), 1u);
}

/// Runs the work in a thread that is cancelled at its first chance, which is behind the work.
void runCancelled(const std::function<void()>& work) {
  bool isDone = false;
  std::thread([&] {
    ::pthread_cancel(::pthread_self());
    work();
    isDone = true;
    ::pthread_testcancel();
    isDone = false;
  }).join();
  EXPECT_TRUE(isDone);
}

/// The same in a child, which a thread that may not be unwound would end.
void runCancelledInChild(const std::function<void()>& work) {
  runInChild([&] {
    runCancelled(work);
    if (testing::Test::HasFailure()) ::_exit(1);
  });
}

TEST_F(SinkThreads, CancelledThreadWritesItsLineFirst) {
  const StandardErrorInto standardError(other_);
  runCancelledInChild([] { WarningA(1, "a"); });
  runCancelledInChild([this] {
    qmx::logToFile(file_);
    InfoA(1, "b");
    __TraceA("c");
  });
  EXPECT_THAT(sortedTexts(), testing::ElementsAre("a", "b", "c"));
}

TEST_F(SinkThreads, CancelledThreadFinishesTheReceiver) {
  runCancelledInChild([] {
    bool isFinished = false;
    qmx::logToCallback([&](const qmx::Line&) {
      ::pthread_testcancel();
      isFinished = true;
    });
    ErrorA(1, "a");
    qmx::logToStandardError();
    if (!isFinished) ::_exit(1);
  });
}

TEST_F(SinkThreads, CancelledThreadReplacesTheSinkWhole) {
  runCancelledInChild([this] {
    qmx::logToFile(file_);
    qmx::logToFile(other_);
    InfoA(1, "a");
  });
  EXPECT_EQ(linesOf(file_).size(), 0u);
  EXPECT_EQ(linesOf(other_).size(), 1u);
}

}  // namespace
