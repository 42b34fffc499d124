#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <korvex/ShmWriter.h>
#include <signal.h>
#include <sstream>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "queue/QueueView.h"
#include "send/Send.h"
#include "support/Await.h"
#include "support/FakeDaemon.h"
#include "support/Receipts.h"
#include "support/SharedObject.h"
#include "support/WireFormat.h"

namespace {

using korvex::test::FakeDaemon;
using korvex::test::kAbcReceipt;
using korvex::test::kClose;
using korvex::test::kData;
using korvex::test::kEmptyReceipt;
using korvex::test::kOpen;
using korvex::test::replyTo;
using korvex::test::staySilent;
using korvex::tool::Ending;
using korvex::tool::Progress;
using korvex::tool::runSend;
using korvex::tool::SendOptions;
using korvex::tool::StopSignal;
using testing::HasSubstr;
using testing::MatchesRegex;

const std::string kAbcdReceipt = "stored bytes=4 xxh128=06b05ab6733a618578af5f94892f3950";

/// Sends files to a daemon in this process and keeps what a person would see.
class SendStream : public testing::Test {
 protected:
  SendStream() {
    std::string name = (std::filesystem::temp_directory_path() / "korvex-send-XXXXXX").string();
    folder = ::mkdtemp(name.data());
    options.queue = daemon.queue();
  }
  ~SendStream() override { std::filesystem::remove_all(folder); }

  void addFile(const std::string& name, const std::string& content) {
    std::ofstream(folder / name, std::ios::binary) << content;
    options.files.push_back(folder / name);
  }

  int send(const Progress& progress = Progress()) {
    const Ending ending = runSend(options, stop, progress, out, errors);
    signal = ending.signal;
    return ending.exitCode;
  }

  StopSignal stop;  // the daemon's thread may use it to its end
  FakeDaemon daemon;
  std::filesystem::path folder;
  SendOptions options;
  std::ostringstream out;
  std::ostringstream errors;
  int signal = 0;
};

}  // namespace

TEST_F(SendStream, IsVerifiedByTheRightReceipt) {
  addFile("a", "abc");
  daemon.serve(replyTo(kClose, 0, kAbcReceipt));
  EXPECT_EQ(send(), 0);
  EXPECT_THAT(errors.str(), MatchesRegex("sent 3 bytes in 1 segments, [0-9.]+ s, [0-9.]+ k?M?B/s: "
                                         "stored and verified\n"));
  daemon.finish();
  EXPECT_EQ(daemon.types(), "0123");
  EXPECT_EQ(daemon.segments(), "abc|");
}

TEST_F(SendStream, AnEmptyFileHasNoSegment) {
  addFile("empty", "");
  daemon.serve(replyTo(kClose, 0, kEmptyReceipt));
  EXPECT_EQ(send(), 0);
  daemon.finish();
  EXPECT_EQ(daemon.types(), "03");
}

TEST_F(SendStream, ASegmentNeverSpansTwoFiles) {
  addFile("a", "abcde");
  addFile("empty", "");
  addFile("b", "fg");
  options.segmentSize = 4;
  options.noReceipt = true;
  daemon.serve(staySilent);
  EXPECT_EQ(send(), 0);
  daemon.finish();
  EXPECT_EQ(daemon.segments(), "abcd|e|fg|");
}

TEST_F(SendStream, FileEndingWithASegmentAddsNoEmptyOne) {
  addFile("a", "abcdefgh");
  options.segmentSize = 4;
  options.noReceipt = true;
  daemon.serve(staySilent);
  EXPECT_EQ(send(), 0);
  daemon.finish();
  EXPECT_EQ(daemon.types(), "012123");
}

TEST_F(SendStream, ASegmentLargerThanABatchTakesSeveralRecords) {
  addFile("a", std::string(10000, 'x'));
  options.noReceipt = true;
  daemon.serve(staySilent);
  EXPECT_EQ(send(), 0);
  daemon.finish();
  EXPECT_EQ(daemon.types(), "011123");  // 4040 + 4040 + 1920 in batches of 4096
  EXPECT_EQ(daemon.segments(), std::string(10000, 'x') + "|");
}

TEST_F(SendStream, ASegmentEndsInTheMiddleOfABatch) {
  addFile("a", std::string(10000, 'x'));
  options.segmentSize = 5000;
  options.noReceipt = true;
  daemon.serve(staySilent);
  EXPECT_EQ(send(), 0);
  daemon.finish();
  const std::string segment(5000, 'x');
  EXPECT_EQ(daemon.segments(), segment + "|" + segment + "|");
}

TEST_F(SendStream, WithoutAReceiptIsNotVerified) {
  options.noReceipt = true;
  addFile("a", "abc");
  daemon.serve(staySilent);
  EXPECT_EQ(send(), 0);
  EXPECT_THAT(errors.str(), HasSubstr(": sent (not verified)\n"));
}

TEST_F(SendStream, ToAQueueOfTinyMessagesIsRefused) {
  FakeDaemon tiny({4, 56});
  options.queue = tiny.queue();
  addFile("a", "abc");
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("found 56 bytes, expected more than 56"));
}

TEST_F(SendStream, FailsOnAReceiptWithAnotherDigest) {
  addFile("a", "abd");
  daemon.serve(replyTo(kClose, 0, kAbcReceipt));
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("sent bytes=3 xxh128="));
  EXPECT_THAT(errors.str(), HasSubstr("stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950"));
}

TEST_F(SendStream, FailsOnAReceiptWithAnotherCount) {
  addFile("a", "abc");
  daemon.serve(replyTo(kClose, 0, kAbcdReceipt));
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("sent bytes=3 "));
  EXPECT_THAT(errors.str(), HasSubstr("stored bytes=4 "));
}

TEST_F(SendStream, FailsOnAReplyThatIsNoReceipt) {
  addFile("a", "abc");
  daemon.serve(replyTo(kClose, 0, "fine\x1b[2J"));
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("is not a receipt: found \"fine\\x1b[2J\", expected"));
}

TEST_F(SendStream, HasItsOwnExitCodeWithoutAReceipt) {
  addFile("a", "abc");
  options.receiptTimeout = 1;
  daemon.serve(staySilent);
  EXPECT_EQ(send(), 3);
  EXPECT_EQ(errors.str(), "korvex: sent, but no receipt came from the daemon within 1 s\n");
}

TEST_F(SendStream, IsNotVerifiedByAnEarlierReceipt) {
  daemon.reply(0, kAbcReceipt);
  daemon.reply(0, kAbcReceipt);
  addFile("a", "abc");
  options.receiptTimeout = 1;
  daemon.serve(staySilent);
  EXPECT_EQ(send(), 3);
}

TEST_F(SendStream, IsNotHurtByAnEarlierError) {
  daemon.reply(5, "sink full");
  addFile("a", "abc");
  daemon.serve(replyTo(kClose, 0, kAbcReceipt));
  EXPECT_EQ(send(), 0);
}

TEST_F(SendStream, WaitsUntilAnEarlierStreamHasItsReply) {
  addFile("a", "abc");
  korvex::ShmWriter earlier("earlier", daemon.queue(), 20, 20, false);
  earlier.open();
  earlier.close();
  const korvex::QueueView queue(daemon.queue());
  daemon.serve([&, isEarlier = true](FakeDaemon& self, const FakeDaemon::Record& record) mutable {
    if (record.type != kClose) return;
    if (!std::exchange(isEarlier, false)) return self.reply(0, kAbcReceipt);
    // Slow to store it: the sender has come meanwhile, and sent something.
    while (queue.messages() == 0) std::this_thread::yield();
    self.reply(5, "an earlier stream's disk was full");
  });
  EXPECT_EQ(send(), 0) << errors.str();
}

TEST_F(SendStream, RefusesAReceiptBeforeTheData) {
  addFile("a", "abc");
  daemon.serve(replyTo(kOpen, 0, kAbcReceipt));
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("a reply for another stream arrived"));
  daemon.finish();
  EXPECT_EQ(daemon.types(), "04");
}

TEST_F(SendStream, RefusesAReceiptBeforeTheClose) {
  addFile("a", std::string(100000, 'x'));
  daemon.serve([done = false](FakeDaemon& self, const FakeDaemon::Record& record) mutable {
    if (record.type != kData || done) return;
    done = true;
    self.reply(0, kAbcReceipt);
  });
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(),
              HasSubstr(std::string("a reply for another stream arrived, \"") + kAbcReceipt));
}

TEST_F(SendStream, IgnoresRepliesWhenNoReceiptIsExpected) {
  addFile("a", "abc");
  daemon.serve(replyTo(kOpen, 0, "welcome"));
  options.noReceipt = true;
  EXPECT_EQ(send(), 0);
}

TEST_F(SendStream, TellsAnErrorOfTheDaemonAndStops) {
  addFile("a", "abc");
  daemon.serve(replyTo(kOpen, 5, "cannot create the stream's file"));
  EXPECT_EQ(send(), 1);
  EXPECT_EQ(errors.str(), "korvex: the stream to queue '" + daemon.queue() +
                              "' failed: status 5: cannot create the stream's file\n");
  daemon.finish();
  EXPECT_EQ(daemon.types(), "04");
}

TEST_F(SendStream, ShowsNoControlCharacterOfADaemonsError) {
  addFile("a", "abc");
  daemon.serve(replyTo(kOpen, 5, "disk\x1b[2J\a full"));
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("status 5: disk\\x1b[2J\\x07 full\n"));
}

TEST_F(SendStream, TellsAnErrorThatComesInsteadOfTheReceipt) {
  addFile("a", "abc");
  daemon.serve(replyTo(kClose, 28, "No space left on device"));
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("status 28: No space left on device"));
}

TEST_F(SendStream, TellsThatNobodyTakesTheOpenRecord) {
  addFile("a", "abc");
  options.timeout = 1;
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("status 15: "));
}

TEST_F(SendStream, TellsThatAFullQueueIsNotServed) {
  addFile("a", std::string(100000, 'x'));
  options.timeout = 1;
  std::promise<void> ended;
  const auto end = ended.get_future().share();
  daemon.serve([&, end, stuck = false](FakeDaemon&, const FakeDaemon::Record& record) mutable {
    if (record.type != kData || stuck) return;
    stuck = true;
    end.wait();
  });
  EXPECT_EQ(send(), 1);
  ended.set_value();
  EXPECT_THAT(errors.str(), HasSubstr("status 15: "));
}

TEST_F(SendStream, NamesAMissingQueue) {
  addFile("a", "abc");
  options.queue = "korvex-test-no-such-queue";
  EXPECT_EQ(send(), 1);
  EXPECT_EQ(errors.str(),
            "korvex: queue 'korvex-test-no-such-queue': No such file or directory; "
            "korvexd must be running and serve this queue\n");
}

TEST_F(SendStream, NoticesThatTheQueueWasReplaced) {
  options.noReceipt = true;
  addFile("a", std::string(100000, 'x'));
  daemon.serve([done = false](FakeDaemon& self, const FakeDaemon::Record& record) mutable {
    if (record.type != kData || done) return;
    done = true;
    self.replaceQueues();
  });
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("the queue was removed or replaced"));
}

TEST_F(SendStream, NoticesThatTheQueueWasReplacedBeforeTheReceipt) {
  addFile("a", "abc");
  daemon.serve([](FakeDaemon& self, const FakeDaemon::Record& record) {
    if (record.type == kClose) self.replaceQueues();
  });
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("the queue was removed or replaced"));
}

TEST_F(SendStream, TakesTheReceiptOfAnEndingDaemon) {
  addFile("a", "abc");
  daemon.serve([](FakeDaemon& self, const FakeDaemon::Record& record) {
    if (record.type != kClose) return;
    self.reply(0, kAbcReceipt);
    self.replaceQueues();
  });
  EXPECT_EQ(send(), 0);
}

TEST_F(SendStream, TakesAReceiptWhileTheQueueIsFull) {
  addFile("a", "abc");
  std::promise<void> ended;
  const auto end = ended.get_future().share();
  daemon.serve([&, end](FakeDaemon& self, const FakeDaemon::Record& record) {
    if (record.type != kClose) return;
    self.fill();
    self.reply(0, kAbcReceipt);
    self.replaceQueues();
    end.wait();
  });
  EXPECT_EQ(send(), 0) << errors.str();
  ended.set_value();
}

TEST_F(SendStream, LeavesNoBatchesWhereNoReceiptComes) {
  addFile("a", "abc");
  options.receiptTimeout = 1;
  std::promise<void> ended;
  const auto end = ended.get_future().share();
  daemon.serve([&, end](FakeDaemon&, const FakeDaemon::Record& record) {
    if (record.type == kClose) end.wait();
  });
  EXPECT_EQ(send(), 3);
  EXPECT_EQ(daemon.waiting(), 0u);
  ended.set_value();
}

TEST_F(SendStream, OpensNothingWhenAFileIsMissing) {
  addFile("a", "abc");
  options.files.push_back(folder / "missing");
  daemon.serve(staySilent);
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("missing': No such file or directory"));
  daemon.finish();
  EXPECT_EQ(daemon.types(), "");
}

TEST_F(SendStream, StopsAndNeverClosesWhenReadingFails) {
  addFile("a", "abc");
  options.files.push_back("/proc/self/mem");  // opens, but its first page cannot be read
  daemon.serve(staySilent);
  EXPECT_EQ(send(), 1);
  EXPECT_EQ(errors.str(), "korvex: cannot read '/proc/self/mem': Input/output error\n");
  daemon.finish();
  EXPECT_EQ(daemon.types(), "0124");
}

TEST_F(SendStream, StopsOnASignalAndSaysWhich) {
  addFile("a", "abc");
  daemon.serve([this](FakeDaemon&, const FakeDaemon::Record& record) {
    if (record.type == kOpen) stop.note(SIGTERM);
  });
  EXPECT_EQ(send(), 128 + SIGTERM);
  EXPECT_EQ(signal, SIGTERM);
  daemon.finish();
  EXPECT_EQ(daemon.types(), "04");
}

TEST_F(SendStream, ASignalEndsTheWaitForTheReceipt) {
  addFile("a", "abc");
  daemon.serve([this](FakeDaemon&, const FakeDaemon::Record& record) {
    if (record.type == kClose) stop.note(SIGINT);
  });
  EXPECT_EQ(send(), 128 + SIGINT);
  daemon.finish();
  EXPECT_EQ(daemon.types(), "0123");
}

TEST_F(SendStream, ASignalEndsTheWaitForRoom) {
  addFile("a", std::string(100000, 'x'));
  options.timeout = 60;
  std::promise<void> ended;
  const auto end = ended.get_future().share();
  daemon.serve([&, end, stuck = false](FakeDaemon& self, const FakeDaemon::Record& record) mutable {
    if (record.type != kData || stuck) return;
    stuck = true;
    self.awaitFull();
    stop.note(SIGINT);
    end.wait();
  });
  EXPECT_EQ(send(), 128 + SIGINT);
  ended.set_value();
}

TEST_F(SendStream, ASignalLeavesLittleTimeToTellTheDaemon) {
  addFile("a", std::string(100000, 'x'));
  options.timeout = 60;
  std::promise<void> ended;
  const auto end = ended.get_future().share();
  daemon.serve([&, end, stuck = false](FakeDaemon& self, const FakeDaemon::Record& record) mutable {
    if (record.type != kData || stuck) return;
    stuck = true;
    self.awaitFull();
    stop.note(SIGTERM);
    end.wait();
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(send(), 128 + SIGTERM);
  // Two seconds are meant. Whoever sent the signal waits, and a supervisor not for long.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  ended.set_value();
}

namespace {

/// Notices that a file is opened.
class OpenWatch {
 public:
  explicit OpenWatch(const std::string& path) : events_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    EXPECT_GE(::inotify_add_watch(events_, path.c_str(), IN_OPEN), 0) << path;
  }
  ~OpenWatch() { ::close(events_); }
  OpenWatch(const OpenWatch&) = delete;
  OpenWatch& operator=(const OpenWatch&) = delete;

  /// Waits until it was opened at least so many times. False if it never is.
  bool await(int times) const {
    // Events that nobody has read yet may have become one.
    const auto next = [this] {
      inotify_event event = {};
      return ::read(events_, &event, sizeof event) > 0;
    };
    for (int i = 0; i < times; ++i) {
      if (!korvex::test::eventually(next)) return false;
    }
    return true;
  }

 private:
  const int events_;
};

}  // namespace

TEST_F(SendStream, ASignalEndsWaitingForAHalfMadeQueue) {
  const korvex::test::SharedObject halfMade("korvex-test-half-made-" + std::to_string(::getpid()));
  const OpenWatch watch("/dev/shm/" + halfMade.name());
  addFile("a", "abc");
  options.queue = halfMade.name();
  options.timeout = 60;
  const auto noted = std::async(std::launch::async, [&] {
    EXPECT_TRUE(watch.await(10)) << "far more looks than there are before the wait";
    stop.note(SIGTERM);
  });
  EXPECT_EQ(send(), 128 + SIGTERM) << errors.str();
}

TEST_F(SendStream, TellsThatAQueueIsNeverFinished) {
  const korvex::test::SharedObject halfMade("korvex-test-half-made-" + std::to_string(::getpid()));
  addFile("a", "abc");
  options.queue = halfMade.name();
  options.timeout = 1;
  EXPECT_EQ(send(), 1);
  EXPECT_EQ(errors.str(), "korvex: queue '" + halfMade.name() +
                              "': it was still unfinished after 1 s; korvexd must be running and "
                              "serve this queue\n");
}

TEST_F(SendStream, ASignalEndsTheWaitForTheLock) {
  const std::string pipe = folder / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  options.files.push_back(pipe);
  options.timeout = 5;
  daemon.serve(staySilent);
  const auto noted = std::async(std::launch::async, [&] {
    const int writer = ::open(pipe.c_str(), O_WRONLY | O_CLOEXEC);  // the stream is open then
    korvex::test::QueueLock(daemon.queue()).takeAndDie();
    EXPECT_EQ(::write(writer, "abc", 3), 3);
    ::close(writer);
    // Most likely in the middle of the wait; the result is the same at any other moment.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    stop.note(SIGTERM);
  });
  EXPECT_EQ(send(), 128 + SIGTERM) << errors.str();
}

TEST_F(SendStream, TellsThatTheLockStaysTaken) {
  addFile("a", std::string(100000, 'x'));
  options.timeout = 3;
  options.name = "photos";
  daemon.serve([isDone = false](FakeDaemon& self, const FakeDaemon::Record& record) mutable {
    if (record.type != kData || std::exchange(isDone, true)) return;
    korvex::test::QueueLock(self.queue()).takeAndDie();
  });
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(errors.str(), HasSubstr("status 15: waited 3 s for room on stream photos: "));
}

TEST_F(SendStream, ManySmallSegmentsShareBatches) {
  addFile("a", std::string(2000, 'x'));
  options.segmentSize = 1;
  options.noReceipt = true;
  daemon.serve(staySilent);
  EXPECT_EQ(send(), 0);
  daemon.finish();
  EXPECT_EQ(daemon.segments().size(), 4000u);
  EXPECT_LT(daemon.batches(), 60u);  // 97 bytes for each segment, in messages of 4096
}

TEST_F(SendStream, ShowsProgressBetweenThePiecesOfAFile) {
  addFile("a", std::string(100000, 'x'));
  options.noReceipt = true;
  daemon.serve([isDone = false](FakeDaemon&, const FakeDaemon::Record& record) mutable {
    if (record.type != kData || std::exchange(isDone, true)) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(150));  // short streams show no bar
  });
  std::ostringstream terminal;
  EXPECT_EQ(send(Progress(terminal, [] { return std::size_t{80}; })), 0);
  EXPECT_THAT(terminal.str(), HasSubstr("% ["));
}

TEST_F(SendStream, QuietTellsNothingOnSuccess) {
  addFile("a", "abc");
  options.quiet = true;
  daemon.serve(replyTo(kClose, 0, kAbcReceipt));
  EXPECT_EQ(send(), 0);
  EXPECT_EQ(errors.str(), "");
  EXPECT_EQ(out.str(), "");
}

TEST_F(SendStream, JsonIsOneObjectAndNothingElse) {
  addFile("a", "abc");
  options.json = true;
  daemon.serve(replyTo(kClose, 0, kAbcReceipt));
  EXPECT_EQ(send(), 0);
  EXPECT_EQ(errors.str(), "");
  EXPECT_THAT(
      out.str(),
      MatchesRegex(R"(\{"bytes":3,"segments":1,"seconds":[0-9.e-]+,"bytesPerSecond":[0-9.e]+,)"
                   R"("xxh128":"06b05ab6733a618578af5f94892f3950","verified":true,)"
                   R"("status":0,"message":"stored and verified","exitCode":0\})"
                   "\n"));
}

TEST_F(SendStream, JsonTellsAFailureToo) {
  addFile("a", "abc");
  options.json = true;
  daemon.serve(replyTo(kOpen, 5, "sink full"));
  EXPECT_EQ(send(), 1);
  EXPECT_THAT(out.str(),
              HasSubstr(R"("verified":false,"status":5,"message":"the stream to queue)"));
  EXPECT_THAT(out.str(), HasSubstr(R"(status 5: sink full","exitCode":1})"));
  EXPECT_THAT(errors.str(), HasSubstr("status 5: sink full"));
}

TEST_F(SendStream, JsonTellsTheKindOfAFailure) {
  struct Row {
    std::string reply;
    int status;
  };
  addFile("a", "abc");
  options.json = true;
  for (const Row& row : {Row{kAbcdReceipt, EBADMSG}, Row{"fine", EPROTO}}) {
    FakeDaemon failing;
    options.queue = failing.queue();
    failing.serve(replyTo(kClose, 0, row.reply));
    out.str("");
    EXPECT_EQ(send(), 1);
    EXPECT_THAT(out.str(), HasSubstr("\"status\":" + std::to_string(row.status) + ","));
  }
}

TEST_F(SendStream, JsonTellsASignal) {
  addFile("a", "abc");
  options.json = true;
  stop.note(SIGTERM);
  send();
  EXPECT_THAT(out.str(), HasSubstr("\"status\":" + std::to_string(EINTR) + ","));
}

TEST_F(SendStream, JsonTellsAMissingReceipt) {
  options.json = true;
  options.receiptTimeout = 1;
  addFile("a", "abc");
  daemon.serve(staySilent);
  EXPECT_EQ(send(), 3);
  EXPECT_THAT(out.str(), HasSubstr(R"("verified":false)"));
  EXPECT_THAT(out.str(), HasSubstr("\"status\":" + std::to_string(ETIMEDOUT) + ","));
  EXPECT_THAT(out.str(), HasSubstr(R"("exitCode":3})"));
}
