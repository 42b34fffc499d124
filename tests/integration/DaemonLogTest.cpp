// What the daemon has to say goes to somebody who may not listen.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <memory>
#include <regex>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "integration/DaemonFixture.h"
#include "queue/MessageQueue.h"
#include "support/Receipts.h"
#include "support/WireFormat.h"

using korvex::test::BatchBytes;
using korvex::test::eventually;
using korvex::test::kAbcReceipt;
using testing::HasSubstr;

namespace {

/// Has the daemon say something about each of so many messages, and then about a stream.
void sendTalkative(const std::string& queueName, unsigned batches, const BatchBytes& stream) {
  korvex::MessageQueue queue(queueName, korvex::MessageQueue::Clock::now());
  const auto deadline = korvex::MessageQueue::Clock::now() + korvex::test::kPatience;
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
    EXPECT_TRUE(eventually([this] { return korvex::test::queueExists(queue_); }));
    return daemon;
  }

  int pipe_ = -1;
};

}  // namespace

TEST_F(UnreadLog, HoldsUpNeitherStreamsNorTheEnd) {
  const auto daemon = startUnread();
  for (int i = 0; i < 20; ++i) ASSERT_EQ(stream("abc"), kAbcReceipt);
  EXPECT_EQ(streams(false).size(), 20u);
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->wait(), 0);
  EXPECT_FALSE(korvex::test::queueExists(queue_) || korvex::test::queueExists(queue_ + "Response"));
}

TEST_F(UnreadLog, HoldsUpNoDaemonThatCannotStart) {
  Process daemon({"/bin/sh", "-c", "exec \"$@\" 2>\"$0\"", folder_ / "log", KORVEXD_PROGRAM,
                  "--queue", queue_, "--output", "/nonexistent"});
  EXPECT_EQ(daemon.wait(), 1);
}

TEST_F(DaemonFixture, CountsDamagedBatchesInsteadOfLoggingEach) {
  constexpr unsigned long kBatches = 3000;
  const auto daemon = start();
  sendTalkative(queue_, kBatches, BatchBytes().record(0, 0));
  ASSERT_TRUE(eventually([this] { return streams(true).size() == 1; }));
  end(*daemon);
  std::istringstream log(daemon->errors());
  unsigned long lines = 0;
  unsigned long held = 0;
  const std::regex left(": ([0-9]+) more lines about damaged batches were suppressed within 10 s");
  std::smatch match;
  for (std::string line; std::getline(log, line);) {
    if (line.find(" is damaged: ") != std::string::npos) ++lines;
    if (std::regex_search(line, match, left)) held += std::stoul(match[1]);
  }
  EXPECT_EQ(lines + held, kBatches);
  EXPECT_GE(lines, 10u);
  EXPECT_LT(lines, 200u) << "ten in ten seconds";
  EXPECT_THAT(daemon->errors(), HasSubstr("stream incomplete (the daemon ended)"));
}

TEST_F(DaemonFixture, LogsAHostileQueueNameOnOneLine) {
  const std::string hostile = queue_ + "\n\x1b[2J";
  const korvex::test::QueueRemover remover(hostile);
  Process daemon({KORVEXD_PROGRAM, "--discard", "--queue", hostile});
  EXPECT_TRUE(awaitLog(daemon, "serving " + queue_ + "\\x0a\\x1b[2J, "));
  end(daemon);
  EXPECT_EQ(daemon.errors().find('\x1b'), std::string::npos);
}

TEST_F(DaemonFixture, RaisesItsSoftLimitOfDescriptors) {
  std::vector<std::string> command = {
      "/bin/sh",        "-c", "ulimit -Sn 40; exec \"$@\"", "sh", KORVEXD_PROGRAM, "--discard",
      "--max-messages", "1"};
  std::vector<std::unique_ptr<korvex::test::QueueRemover>> removers;
  for (int i = 0; i < 30; ++i) {
    const std::string name = queue_ + "-" + std::to_string(i);
    command.insert(command.end(), {"--queue", name});
    removers.push_back(std::make_unique<korvex::test::QueueRemover>(name));
  }
  Process daemon(command);
  EXPECT_TRUE(awaitLog(daemon, "serving " + queue_ + "-29,")) << daemon.errors();
  end(daemon);
}
