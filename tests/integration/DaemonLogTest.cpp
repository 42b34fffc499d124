// What the daemon has to say goes to somebody who may not listen.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "integration/DaemonFixture.h"
#include "support/BatchBytes.h"
#include "queue/MessageQueue.h"

using test_support::BatchBytes;
using test_support::eventually;
using testing::HasSubstr;

namespace {

const char kReceiptOfAbc[] = "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950";

/// Has the daemon say something about each of so many messages, and then about a stream.
void sendTalkative(const std::string& queueName, unsigned batches, const BatchBytes& stream) {
  korvex::MessageQueue queue(queueName, korvex::MessageQueue::Clock::now());
  const auto deadline = korvex::MessageQueue::Clock::now() + test_support::kPatience;
  for (unsigned i = 0; i < batches; ++i) ASSERT_TRUE(queue.sendBefore("bad", 3, 1, deadline));
  const auto& bytes = stream.bytes();
  ASSERT_TRUE(queue.sendBefore(bytes.data(), bytes.size(), 1, deadline));
}

/// A daemon whose standard error is a pipe without room for a single byte.
class UnreadLog : public DaemonFixture {
 protected:
  UnreadLog() {
    const std::string path = folder_ / "log";
    EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
    pipe_ = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    while (::write(pipe_, "\n", 1) == 1) {
    }
  }
  ~UnreadLog() override { ::close(pipe_); }

  std::unique_ptr<Process> startUnread(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> command = {"/bin/sh",
                                        "-c",
                                        "log=\"$0\"; exec \"$@\" 2>\"$log\"",
                                        folder_ / "log",
                                        KORVEXD_PROGRAM,
                                        "--queue",
                                        queue_,
                                        "--output",
                                        output_};
    command.insert(command.end(), more.begin(), more.end());
    auto daemon = std::make_unique<Process>(command);
    EXPECT_TRUE(eventually([this] { return test_support::queueExists(queue_); }));
    return daemon;
  }

  /// Reads until these words come. The lines that are not empty.
  std::vector<std::string> linesUntil(const std::string& words) const {
    std::string text;
    EXPECT_TRUE(eventually([&] {
      char bytes[4096];
      ssize_t size = 0;
      while ((size = ::read(pipe_, bytes, sizeof bytes)) > 0)
        text.append(bytes, static_cast<std::size_t>(size));
      return text.find(words) != std::string::npos;
    })) << text.substr(text.size() - std::min<std::size_t>(text.size(), 1000));
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
      if (!line.empty()) lines.push_back(line);
    return lines;
  }

  int pipe_ = -1;
};

/// How many lines are missing, as this one says; 0 for any other.
unsigned long missingOf(const std::string& line) {
  const std::string before = "[warning] ";
  if (line.find(" log lines are missing here: nobody read them") == std::string::npos) return 0;
  return std::stoul(line.substr(line.find(before) + before.size()));
}

}  // namespace

TEST_F(UnreadLog, HoldsUpNeitherStreamsNorTheEnd) {
  const auto daemon = startUnread();
  for (int i = 0; i < 20; ++i) ASSERT_EQ(stream("abc"), kReceiptOfAbc);
  EXPECT_EQ(streams(false).size(), 20u);
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->wait(), 0);
  EXPECT_FALSE(test_support::queueExists(queue_) || test_support::queueExists(queue_ + "Response"));
}

TEST_F(UnreadLog, HoldsUpNoDaemonThatCannotStart) {
  Process daemon({"/bin/sh", "-c", "exec \"$@\" 2>\"$0\"", folder_ / "log", KORVEXD_PROGRAM,
                  "--queue", queue_, "--output", "/nonexistent"});
  EXPECT_EQ(daemon.wait(), 1);
}

TEST_F(UnreadLog, TellsWhatIsMissingOnceItIsRead) {
  constexpr unsigned kBatches = 10000;
  const auto daemon = startUnread();
  sendTalkative(queue_, kBatches, BatchBytes().record(0, 0).record(3, 2));
  ASSERT_TRUE(eventually([this] { return streams(false).size() == 1; }));
  unsigned long told = 0;
  unsigned long missing = 0;
  for (const std::string& line : linesUntil("stream complete")) {
    const unsigned long here = missingOf(line);
    missing += here;
    if (here == 0) ++told;
  }
  EXPECT_EQ(told + missing, 1 + kBatches + 1) << "the start, the batches, the stream";
  EXPECT_GT(missing, 0u);
  end(*daemon);
}

TEST_F(DaemonFixture, TellsEverythingInOrderUpToItsEnd) {
  const auto daemon = start();
  sendTalkative(queue_, 3000, BatchBytes().record(0, 0));
  ASSERT_TRUE(eventually([this] { return streams(true).size() == 1; }));
  end(*daemon);
  std::size_t at = 0;
  for (int i = 1; i <= 3000 && at != std::string::npos; ++i)
    at = daemon->errors().find(": batch " + std::to_string(i) + " is damaged: ", at);
  ASSERT_NE(at, std::string::npos);
  EXPECT_THAT(daemon->errors().substr(at), HasSubstr("stream incomplete (the daemon ended)"));
  EXPECT_EQ(missingOf(daemon->errors()), 0u);
}
