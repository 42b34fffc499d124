// What the command-line tool writes where: to a terminal, to what is none, to a pipe without
// reader.

#include <algorithm>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "integration/DaemonFixture.h"
#include "support/FakeDaemon.h"
#include "support/Receipts.h"
#include "support/Terminal.h"

using korvex::test::eventually;
using korvex::test::FakeDaemon;
using korvex::test::kAbcReceipt;
using korvex::test::kEraseRest;
using korvex::test::kToStart;
using korvex::test::staySilent;
using korvex::test::Terminal;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

// Nothing is sent before there is enough for a record, or the input ends.
const char kLine[] = "0 B, 0 B/s, [0-9]+:[0-9]+";

/// A sender whose input is a pipe that a test holds open.
class Sender {
 public:
  Sender(const std::string& pipe, const std::string& queue, const std::string& redirection,
         const std::string& target)
      : process_({"/bin/sh", "-c",
                  "exec \"$0\" send --queue \"$1\" \"$2\" " + redirection + "\"$3\"",
                  KORVEX_PROGRAM, queue, pipe, target}),
        input_(::open(pipe.c_str(), O_WRONLY | O_CLOEXEC)) {
    EXPECT_EQ(::write(input_, "abc", 3), 3);
  }
  ~Sender() { closeInput(); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  korvex::test::Process& process() { return process_; }

  void closeInput() {
    if (input_ >= 0) ::close(std::exchange(input_, -1));
  }

  /// Lets it end. Its exit code.
  int finish() {
    closeInput();
    return process_.wait().value_or(-1);
  }

 private:
  korvex::test::Process process_;
  int input_;
};

class SendTerminal : public DaemonFixture {
 protected:
  std::string makePipe(const std::string& name) const {
    EXPECT_EQ(::mkfifo((folder_ / name).c_str(), 0600), 0);
    return folder_ / name;
  }

  std::unique_ptr<Sender> sendTo(Terminal& terminal, const std::string& queue) const {
    return std::make_unique<Sender>(makePipe("terminal"), queue, "2>", terminal.name());
  }

  /// Waits until a line was drawn so many times.
  static bool awaitDrawings(Terminal& terminal, std::size_t count) {
    return eventually([&] { return terminal.drawings().size() >= count; });
  }

  /// Waits until lines that begin like this were drawn so many times.
  static bool awaitDrawings(Terminal& terminal, const std::string& start, long count) {
    return eventually([&] {
      const auto drawn = terminal.drawings();
      return std::count_if(drawn.begin(), drawn.end(), [&](const std::string& line) {
               return line.rfind(start, 0) == 0;
             }) >= count;
    });
  }
};

/// The exit code of a shell's line. In it "$0" is the tool, "$1" the queue, "$2" a descriptor of a
/// pipe that nobody reads any more.
int runWithUnreadPipe(const std::string& line, const std::string& queue, std::string& errors) {
  int ends[2];
  EXPECT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  const std::string words = "printf abc | " + line;
  korvex::test::Process process(
      {"/bin/sh", "-c", words, KORVEX_PROGRAM, queue, "/dev/fd/" + std::to_string(ends[1])});
  ::close(ends[1]);
  const int code = process.wait().value_or(-1);
  errors = process.errors();
  return code;
}

}  // namespace

TEST_F(SendTerminal, ShowsProgressAndErasesItAtTheEnd) {
  const auto daemon = start();
  Terminal terminal(80);
  const auto sender = sendTo(terminal, queue_);
  ASSERT_TRUE(awaitDrawings(terminal, 1));
  EXPECT_THAT(terminal.drawings()[0], MatchesRegex(kLine));
  EXPECT_EQ(sender->finish(), 0);
  EXPECT_THAT(terminal.text(), HasSubstr(kToStart + kEraseRest + "sent 3 bytes in 1 segments, "));
  end(*daemon);
}

// More than once each: the line shows that it waits, though nothing new comes.
TEST_F(SendTerminal, ShowsWhatItWaitsForOnceEverythingIsSent) {
  FakeDaemon fake;
  fake.serve(staySilent);
  Terminal terminal(80);
  const auto sender = sendTo(terminal, fake.queue());
  sender->closeInput();
  ASSERT_TRUE(awaitDrawings(terminal, "waiting for the receipt: 3 B sent 0:", 2));
  fake.reply(0, "finishing");
  ASSERT_TRUE(awaitDrawings(terminal, "the engine is finishing: 3 B sent 0:", 2));
  fake.reply(0, kAbcReceipt);
  EXPECT_EQ(sender->finish(), 0);
  EXPECT_THAT(terminal.text(), HasSubstr(kToStart + kEraseRest + "sent 3 bytes in 1 segments, "));
}

TEST_F(SendTerminal, ShowsAFailureInPlaceOfTheProgress) {
  const auto daemon = start();
  Terminal terminal(80);
  const auto sender = sendTo(terminal, queue_);
  ASSERT_TRUE(awaitDrawings(terminal, 1));
  sender->process().signal(SIGTERM);
  EXPECT_EQ(sender->process().wait(), -SIGTERM);
  EXPECT_THAT(terminal.text(),
              HasSubstr(kToStart + kEraseRest + "korvex: interrupted by signal 15\r\n"));
  end(*daemon);
}

TEST_F(SendTerminal, ShowsNoMoreThanFits) {
  const auto daemon = start();
  Terminal terminal(8);
  const auto sender = sendTo(terminal, queue_);
  ASSERT_TRUE(awaitDrawings(terminal, 1));
  EXPECT_EQ(terminal.drawings()[0].size(), 7u) << "the last column stays empty";
  EXPECT_THAT(terminal.drawings()[0], StartsWith("0 B, "));
  EXPECT_EQ(sender->finish(), 0);
  end(*daemon);
}

TEST_F(SendTerminal, OfUnknownWidthIsTakenForAUsualOne) {
  const auto daemon = start();
  Terminal terminal(0);
  const auto sender = sendTo(terminal, queue_);
  ASSERT_TRUE(awaitDrawings(terminal, 1));
  EXPECT_THAT(terminal.drawings()[0], MatchesRegex(kLine));
  EXPECT_EQ(sender->finish(), 0);
  end(*daemon);
}

// A second sender, on a terminal, shows when there was time enough to draw.
TEST_F(SendTerminal, IsNeededForTheProgress) {
  const std::string other = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(other);
  const auto daemon = start({"--queue", other});
  Sender sender(makePipe("none"), queue_, "2>", folder_ / "errors");
  Terminal terminal(80);
  const auto clock = sendTo(terminal, other);
  ASSERT_TRUE(awaitDrawings(terminal, 3));
  EXPECT_THAT(korvex::test::contentsOf(folder_ / "errors"), IsEmpty());
  EXPECT_EQ(clock->finish(), 0);
  EXPECT_EQ(sender.finish(), 0);
  EXPECT_THAT(korvex::test::contentsOf(folder_ / "errors"), StartsWith("sent 3 bytes "));
  end(*daemon);
}

TEST_F(SendTerminal, ThatWentDoesNotSpoilAVerifiedStream) {
  const auto daemon = start();
  std::string errors;
  EXPECT_EQ(runWithUnreadPipe("\"$0\" send --queue \"$1\" 2>&${2##*/}", queue_, errors), 0);
  EXPECT_EQ(streams(false).size(), 1u);
  end(*daemon);
}

TEST_F(SendTerminal, ThatWentAwayFailsTheRequestedResult) {
  const auto daemon = start();
  std::string errors;
  EXPECT_EQ(runWithUnreadPipe("\"$0\" send --queue \"$1\" --json >&${2##*/}", queue_, errors), 1);
  EXPECT_EQ(errors, "korvex: cannot write the result to standard output: Broken pipe\n");
  end(*daemon);
}
