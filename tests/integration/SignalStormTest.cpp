// A thousand signals a second, each of which cuts the call at hand short, change nothing.

#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <thread>

#include "integration/DaemonFixture.h"
#include "korvex/Status.h"
#include "support/DaemonQueues.h"
#include "support/Late.h"
#include "support/SharedCounter.h"
#include "support/SignalStorm.h"
#include "support/ThrownError.h"

using korvex::test::CutCall;
using korvex::test::eventually;
using korvex::test::SharedCounter;
using korvex::test::SignalStorm;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr int kStops = 20;
constexpr unsigned kSignalsPerStop = 25;

/// The n-th part of a stream.
std::string piece(std::size_t number) {
  std::string text;
  while (text.size() < 3000) text += std::to_string(number * 3000 + text.size()) + " ";
  return text;
}

class UnderSignals : public DaemonFixture {
 protected:
  /// Stops the daemon again and again, so that the writer has to wait under signals: for room, or
  /// for the lock that the daemon may have in its hands.
  void stopAndGo(Process& daemon) const {
    for (int i = 0; i < kStops; ++i) {
      daemon.signal(SIGSTOP);
      const unsigned before = arrived_.value();
      EXPECT_TRUE(eventually([&] { return arrived_.value() >= before + kSignalsPerStop; }));
      daemon.signal(SIGCONT);
    }
  }

  /// A thread that does this while the test streams. No signal of the storm goes to it.
  std::thread stopAndGoBeside(Process& daemon, std::atomic<bool>& isOver) const {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread([this, &daemon, &isOver] {
      stopAndGo(daemon);
      isOver = true;
    });
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
  }

  std::string file(std::size_t pieces) const {
    std::ofstream file(folder_ / "file", std::ios::binary);
    for (std::size_t i = 0; i < pieces; ++i) file << piece(i);
    return folder_ / "file";
  }

  /// Bytes of the stream that is open; 0 when none is.
  std::uintmax_t storedSoFar() const {
    const auto names = streams(true);
    std::error_code error;
    const auto size = names.empty()
                          ? std::uintmax_t{0}
                          : std::filesystem::file_size(output_ + "/" + names[0] + "/data", error);
    return error ? 0 : size;
  }

  SharedCounter arrived_{folder_ / "signals"};
};

/// Producers do not choose how the host's handlers are installed.
class WriterUnderSignals : public UnderSignals, public testing::WithParamInterface<CutCall> {
 protected:
  static constexpr unsigned kWait = 2;

  /// How a flush ended that found no room.
  struct Wait {
    ThrownError error;
    std::chrono::steady_clock::duration time;

    bool isLate() const { return time > std::chrono::seconds(kWait) + korvex::test::kSlack; }
  };

  /// Begins with a second of the clock, from which deadlines are counted: so the wait is as long as
  /// it can be.
  static Wait waitOf(korvex::ShmWriter& writer) {
    const std::time_t second = std::time(nullptr);
    eventually([&] { return std::time(nullptr) > second; });
    const auto start = std::chrono::steady_clock::now();
    const ThrownError error = thrownBy([&] { writer.flush_shm_buffer(kWait); });
    return {error, std::chrono::steady_clock::now() - start};
  }
};

INSTANTIATE_TEST_SUITE_P(, WriterUnderSignals,
                         testing::Values(CutCall::Fails, CutCall::StartsAgain),
                         [](const auto& test) {
                           return test.param == CutCall::Fails ? "CutCallsFail"
                                                               : "CutCallsStartAgain";
                         });

}  // namespace

TEST_P(WriterUnderSignals, WaitingForRoomSendsEveryByte) {
  const auto daemon = start({"--max-messages", "1", "--max-message-size", "4K"});
  const SignalStorm storm(arrived_, GetParam());
  const auto to = writer();
  to->open();
  std::atomic<bool> isOver{false};
  std::thread rhythm = stopAndGoBeside(*daemon, isOver);
  std::string sent;
  for (std::size_t i = 0; !isOver; ++i) {
    sent += piece(i);
    EXPECT_NO_THROW(write(*to, piece(i)));
  }
  rhythm.join();
  to->close();
  EXPECT_THAT(awaitReply(*to).message,
              StartsWith("stored bytes=" + std::to_string(sent.size()) + " "));
  ASSERT_EQ(streams(false).size(), 1u);
  EXPECT_TRUE(dataOf(streams(false)[0]) == sent);
  end(*daemon);
}

TEST_P(WriterUnderSignals, WaitsNeitherShorterNorLonger) {
  korvex::test::DaemonQueues queues(4096, 1);
  korvex::ShmWriter to("s", queues.name(), kWait, 1, false);
  const SignalStorm storm(arrived_, GetParam());
  to.open();  // fills the queue
  const Wait wait = korvex::test::againWhenLate([&] { return waitOf(to); },
                                                [](const Wait& found) { return found.isLate(); });
  EXPECT_EQ(wait.error,
            (ThrownError{korvex::kStatusTimedOut,
                         "Timed out after waiting 2s to send data to korvexd on stream s"}));
  // A machine that stood still may have let it begin in the midst of its first second.
  EXPECT_GE(wait.time, std::chrono::milliseconds(990));
  EXPECT_FALSE(wait.isLate());
  EXPECT_GT(arrived_.value(), 100u);
  queues.takeBatch();
  to.stop(false);
  queues.takeBatch();
  to.close();
}

TEST_F(UnderSignals, ARepeatedlyStoppedToolSendsEveryByte) {
  const auto daemon = start();
  const std::string content = file(100);
  const std::string goOn = folder_ / "go-on";
  std::ofstream{goOn};
  // The file over and over until it has been stopped often enough.
  const std::string line = "exec \"${@:2}\" < <(while [ -e \"$1\" ] && cat \"$0\"; do :; done)";
  Process sender({"/bin/bash", "-c", line, content, goOn, KORVEX_PROGRAM, "send", "--quiet",
                  "--queue", queue_});
  for (int i = 0; i < kStops; ++i) {
    const std::uintmax_t before = storedSoFar();
    for (const int signal : {SIGSTOP, SIGCONT, SIGWINCH}) sender.signal(signal);
    ASSERT_TRUE(eventually([&] { return storedSoFar() > before; })) << sender.errors();
  }
  std::filesystem::remove(goOn);
  EXPECT_EQ(sender.wait(), 0) << sender.errors();
  ASSERT_EQ(streams(false).size(), 1u);
  const std::string stored = dataOf(streams(false)[0]);
  const std::string once = korvex::test::contentsOf(content);
  std::string sent;
  while (sent.size() < stored.size()) sent += once;
  EXPECT_TRUE(stored == sent);
  end(*daemon);
}

#ifdef KORVEX_SIGNAL_STORM

namespace {

/// Programs that have the storm from their beginning to their end.
class ProgramsUnderSignals : public UnderSignals {
 protected:
  std::vector<std::string> underSignals(const std::vector<std::string>& command) const {
    std::vector<std::string> words = {
        "/usr/bin/env", "LD_PRELOAD=" KORVEX_SIGNAL_STORM,
        std::string(korvex::test::kStormCounterVariable) + "=" + (folder_ / "signals")};
    words.insert(words.end(), command.begin(), command.end());
    return words;
  }

  std::vector<std::string> daemonCommand() const {
    return {KORVEXD_PROGRAM, "--queue",         queue_,           "--output", output_,
            "--stats",       folder_ / "stats", "--max-messages", "2"};
  }
};

}  // namespace

// Shared memory is reserved by a call that a signal cuts short.
TEST_F(ProgramsUnderSignals, ADaemonStartsServesAndEndsTimeAndAgain) {
  for (int i = 1; i <= 10; ++i) {
    Process daemon(underSignals(daemonCommand()));
    ASSERT_TRUE(eventually([&] {
      return daemon.errors().find("serving " + queue_ + ",") != std::string::npos ||
             daemon.wait(std::chrono::milliseconds(0));
    }));
    EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
    end(daemon);
    EXPECT_FALSE(korvex::test::queueExists(queue_));
  }
  EXPECT_EQ(streams(false).size(), 10u);
  EXPECT_GT(arrived_.value(), 10u);
}

TEST_F(ProgramsUnderSignals, APipeArrivesByteByByte) {
  Process daemon(underSignals(daemonCommand()));
  ASSERT_TRUE(awaitServing(daemon)) << daemon.errors();
  const std::string content = file(2000);
  // Many small writes with pauses between them, so that the reader has to wait.
  const std::string line =
      "for i in 1 2 3 4 5; do sleep 0.05; dd bs=1000 if=\"$0\" 2>/dev/null; done | \"$@\"";
  std::vector<std::string> command = {"/bin/bash", "-c", line, content};
  for (const std::string& word :
       underSignals({KORVEX_PROGRAM, "send", "--quiet", "--queue", queue_}))
    command.push_back(word);
  Process sender(command);
  EXPECT_EQ(sender.wait(), 0) << sender.errors();
  EXPECT_EQ(sender.errors(), "");
  ASSERT_EQ(streams(false).size(), 1u);
  const std::string once = korvex::test::contentsOf(content);
  EXPECT_TRUE(dataOf(streams(false)[0]) == once + once + once + once + once);
  EXPECT_GT(arrived_.value(), 100u);
  end(daemon);
}

#endif
