#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "Failure.h"
#include "send/ChildProcess.h"
#include "send/SourceCommand.h"
#include "support/Await.h"
#include "support/RestoredDescriptor.h"
#include "support/TemporaryFolder.h"

namespace {

using korvex::test::contentsOf;
using korvex::test::eventually;
using korvex::test::RestoredDescriptor;
using korvex::tool::Failure;
using korvex::tool::Interrupted;
using korvex::tool::ProcessEnd;
using korvex::tool::signalName;
using korvex::tool::SourceCommand;
using korvex::tool::StopSignal;
using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::MatchesRegex;
using Words = std::vector<std::string>;

std::size_t inheritableDescriptors() {
  std::size_t count = 0;
  for (int file = 0; file < 1024; ++file) {
    const int flags = ::fcntl(file, F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) == 0) ++count;
  }
  return count;
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  for (int file = 0; file < 1024; ++file) count += ::fcntl(file, F_GETFD) >= 0;
  return count;
}

/// The processor time of this thread.
std::chrono::nanoseconds threadTime() {
  timespec time = {};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// A command that is read to its end, mostly a shell's line, in which $0 is a folder.
class CommandAsSource : public testing::Test {
 protected:
  CommandAsSource() { EXPECT_EQ(::mkfifo((folder / "go").c_str(), 0600), 0); }

  void start(const Words& words) {
    command = std::make_unique<SourceCommand>(SourceCommand::Settings{words, timeout, grace}, stop);
    command->whenIdle(whenIdle);
    command->start();
  }
  void startShell(const std::string& line) { start({"sh", "-c", line, folder.path()}); }

  std::string readAll() {
    unsigned char bytes[1000];
    std::string all;
    EXPECT_TRUE(command->openNext());
    for (std::size_t got = sizeof bytes; got == sizeof bytes;) {
      got = command->fill(bytes, sizeof bytes);
      all.append(reinterpret_cast<const char*>(bytes), got);
    }
    EXPECT_FALSE(command->openNext());
    command->finish();
    return all;
  }

  std::string outputOf(const std::string& line) {
    startShell(line);
    return readAll();
  }

  /// Why the present command failed.
  std::string failure() {
    try {
      readAll();
    } catch (const Failure& failure) {
      return failure.what();
    }
    ADD_FAILURE() << "it did not fail";
    return "";
  }
  std::string failureOf(const std::string& line) {
    startShell(line);
    return failure();
  }

  /// Lets a command go on that reads from the pipe.
  void go() const {
    const int pipe = ::open((folder / "go").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (pipe >= 0) ::close(pipe);
  }

  bool awaitFile(const std::string& name) const {
    return eventually([&] {
      std::error_code error;
      const auto size = std::filesystem::file_size(folder / name, error);
      return !error && size > 0;
    });
  }

  /// Whether the process whose number is in the file has ended.
  bool awaitEndOf(const std::string& name) const {
    const pid_t process = std::stoi(contentsOf(folder / name));
    return eventually([&] {
      ::waitpid(process, nullptr, WNOHANG);
      return ::kill(process, 0) != 0;
    });
  }

  std::string program(const std::string& text) const {
    std::ofstream(folder / "program") << text;
    EXPECT_EQ(::chmod((folder / "program").c_str(), 0700), 0);
    return folder / "program";
  }

  std::string refusal(const std::string& name) {
    try {
      start({name, "-x"});
    } catch (const Failure& failure) {
      EXPECT_NE(failure.status(), 0u);
      return failure.what();
    }
    ADD_FAILURE() << "it was started";
    return "";
  }

  korvex::test::TemporaryFolder folder;
  milliseconds timeout = korvex::test::kPatience;
  milliseconds grace = korvex::test::kPatience;
  std::function<void()> whenIdle;
  StopSignal stop;
  std::unique_ptr<SourceCommand> command;
};

using CommandThatFails = CommandAsSource;
using CommandThatCannotStart = CommandAsSource;
using CommandThatLeavesChildren = CommandAsSource;
using CommandThatIsInterrupted = CommandAsSource;

}  // namespace

TEST(ChildProcess, EndsWithItsOwner) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  { const korvex::tool::ChildProcess child({"sleep", "600"}, ends[1]); }
  ::close(ends[1]);
  pollfd end = {ends[0], POLLIN, 0};
  EXPECT_EQ(::poll(&end, 1, 0), 1) << "nothing has the other end";
  ::close(ends[0]);
}

TEST_F(CommandAsSource, GivesItsOutputToTheEnd) {
  EXPECT_EQ(outputOf("printf ab; printf c").size(), 3u);
  const auto end = command->settle();
  ASSERT_TRUE(end);
  EXPECT_TRUE(end->isSuccess());
}

TEST_F(CommandAsSource, GivesMoreThanAPipeHolds) {
  EXPECT_EQ(outputOf("head -c 3000000 /dev/zero"), std::string(3000000, '\0'));
}

TEST_F(CommandAsSource, GetsItsArgumentsUnchanged) {
  start({"printf", "%s|", "", "[a]", "--", "a b", "*"});
  EXPECT_EQ(readAll(), "|[a]|--|a b|*|");
}

TEST_F(CommandAsSource, LeavesNoProcessAndNoDescriptor) {
  const std::size_t before = openDescriptors();
  outputOf("true");
  failureOf("false");
  command.reset();
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(CommandAsSource, HasASessionOfItsOwn) {
  EXPECT_EQ(outputOf("test \"$(cut -d' ' -f5,6 /proc/$$/stat)\" = \"$$ $$\" && echo yes"), "yes\n");
}

TEST_F(CommandAsSource, HasDefaultSignalsWhateverTheCallerHas) {
  sigset_t signals;
  sigset_t before;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &signals, &before);
  const auto pipeAction = ::signal(SIGPIPE, SIG_IGN);
  const std::string found = outputOf("grep -E 'Sig(Blk|Ign)' /proc/self/status");
  ::signal(SIGPIPE, pipeAction);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  // The C library may have new programs ignore its private signals, 32 and 33.
  EXPECT_THAT(found, MatchesRegex("SigBlk:\t0000000000000000\n"
                                  "SigIgn:\t0000000(00|18)0000000\n"));
}

TEST_F(CommandAsSource, HasNoDescriptorOfTheCallersOwn) {
  start({"ls", "/proc/self/fd"});
  const std::string lines = readAll();
  // One is that of the listing itself.
  EXPECT_EQ(static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n')),
            inheritableDescriptors() + 1);
}

TEST_F(CommandAsSource, ReadsTheCallersStandardInput) {
  std::ofstream(folder / "input") << "abc";
  const int file = ::open((folder / "input").c_str(), O_RDONLY | O_CLOEXEC);
  const RestoredDescriptor input(STDIN_FILENO, file);
  ::close(file);
  start({"cat"});
  EXPECT_EQ(readAll(), "abc");
}

TEST_F(CommandAsSource, ReadsNothingFromATerminal) {
  const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_EQ(::grantpt(master), 0);
  ASSERT_EQ(::unlockpt(master), 0);
  const int slave = ::open(::ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
  {
    const RestoredDescriptor input(STDIN_FILENO, slave);
    EXPECT_EQ(outputOf("readlink /proc/self/fd/0; cat"), "/dev/null\n");
  }
  ::close(slave);
  ::close(master);
}

TEST_F(CommandAsSource, MayEndLongAfterItsOutput) {
  whenIdle = [this] { go(); };
  EXPECT_EQ(outputOf("echo a; exec >&-; : <\"$0/go\"; : >\"$0/late\""), "a\n");
  EXPECT_TRUE(std::filesystem::exists(folder / "late"));
}

TEST_F(CommandThatFails, NamesItsExitCode) {
  EXPECT_EQ(failureOf("echo a; exit 3"), "the command 'sh' ended with exit code 3");
  EXPECT_EQ(command->settle()->exitCode, 3);
}

TEST_F(CommandThatFails, NamesTheSignalThatEndedIt) {
  EXPECT_EQ(failureOf("echo a; kill -KILL $$"), "the command 'sh' was ended by signal 9 (SIGKILL)");
  EXPECT_EQ(command->settle()->signal, SIGKILL);
}

TEST_F(CommandThatFails, IsNoticedWhereTheCallerIgnoredItsChildren) {
  const auto before = ::signal(SIGCHLD, SIG_IGN);
  EXPECT_THAT(failureOf("exit 3"), HasSubstr("exit code 3"));
  ::signal(SIGCHLD, before);
}

TEST_F(CommandThatFails, AfterItsOutputHasEnded) {
  whenIdle = [this] { go(); };
  EXPECT_THAT(failureOf("exec >&-; : <\"$0/go\"; exit 7"), HasSubstr("exit code 7"));
}

TEST_F(CommandThatFails, ByNotEndingAfterItsOutput) {
  timeout = milliseconds(1);
  EXPECT_EQ(failureOf("exec >&-; exec sleep 1000"),
            "the command 'sh' closed its output, but did not end within 0 s");
  EXPECT_EQ(command->settle()->signal, SIGTERM);
}

TEST(CommandsSignal, HasTheNameOfTheShell) {
  EXPECT_EQ(signalName(SIGTERM), "SIGTERM");
  EXPECT_EQ(signalName(SIGRTMIN), "SIG" + std::to_string(SIGRTMIN));
}

TEST_F(CommandThatCannotStart, BecauseItIsMissing) {
  EXPECT_EQ(refusal("korvex-test-no-such\x1b"),
            "the command 'korvex-test-no-such\\x1b' cannot be started: No such file or directory");
  EXPECT_THAT(refusal(folder / "missing"), HasSubstr("missing' cannot be started: No such file"));
}

TEST_F(CommandThatCannotStart, BecauseItIsNotExecutable) {
  const std::string name = program("#!/bin/sh\n");
  ASSERT_EQ(::chmod(name.c_str(), 0600), 0);
  EXPECT_THAT(refusal(name), HasSubstr("cannot be started: Permission denied"));
  EXPECT_THAT(refusal("/"), HasSubstr("cannot be started: Permission denied"));
}

TEST_F(CommandThatCannotStart, BecauseItsInterpreterIsMissing) {
  EXPECT_THAT(
      refusal(program("#!/no/such/shell\n")),
      HasSubstr("No such file or directory; the file exists, but its interpreter does not"));
}

TEST_F(CommandThatCannotStart, BecauseItsInterpreterIsMissingAnywhereInPath) {
  program("#!/no/such/shell\n");
  const std::string before = ::getenv("PATH");
  ::setenv("PATH", ("/no/such/folder:/:" + folder.path()).c_str(), 1);
  EXPECT_THAT(refusal("program"), HasSubstr("the file exists, but its interpreter does not"));
  ::setenv("PATH", before.c_str(), 1);
}

TEST_F(CommandThatCannotStart, BecauseItIsNoProgram) {
  EXPECT_THAT(refusal(program("text\n")),
              HasSubstr("Exec format error; a script begins with a line like #!/bin/sh"));
}

TEST_F(CommandThatCannotStart, AndLeavesNoDescriptor) {
  const std::size_t before = openDescriptors();
  refusal("korvex-test-no-such");
  EXPECT_FALSE(command->settle());
  command.reset();
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(CommandThatLeavesChildren, MakesThemChildrenOfTheTool) {
  EXPECT_EQ(outputOf("echo a"), "a\n");
  int adopts = 0;
  EXPECT_EQ(::prctl(PR_GET_CHILD_SUBREAPER, &adopts), 0);
  EXPECT_EQ(adopts, 1);
}

TEST_F(CommandThatLeavesChildren, EndsWithTheLastOfTheirOutput) {
  whenIdle = [this] { go(); };
  EXPECT_EQ(outputOf("(cat \"$0/go\"; echo late) & echo early"), "early\nlate\n");
}

TEST_F(CommandThatLeavesChildren, IsWaitedForAsleep) {
  const auto enough = std::chrono::steady_clock::now() + milliseconds(1000);
  whenIdle = [&] {
    if (std::chrono::steady_clock::now() > enough) go();
  };
  startShell("cat \"$0/go\" &");
  const auto before = threadTime();
  readAll();
  EXPECT_LT(threadTime() - before, milliseconds(100)) << "of more than a second";
}

TEST_F(CommandThatLeavesChildren, FailsAtOnceWithItsExitCode) {
  EXPECT_THAT(failureOf("sleep 1000 & echo $! >\"$0/child\"; exit 4"), HasSubstr("exit code 4"));
  EXPECT_EQ(command->settle()->exitCode, 4);
  EXPECT_TRUE(awaitEndOf("child"));
}

TEST_F(CommandThatLeavesChildren, HasThoseKilledThatDoNotEnd) {
  grace = milliseconds(1);
  failureOf("trap '' TERM; sleep 1000 & echo $! >\"$0/child\"; exit 4");
  EXPECT_EQ(command->settle()->exitCode, 4);
  EXPECT_TRUE(awaitEndOf("child"));
}

TEST_F(CommandThatLeavesChildren, FailsWhenTheirOutputNeverEnds) {
  timeout = milliseconds(1);
  EXPECT_EQ(failureOf("sleep 1000 & echo $! >\"$0/child\""),
            "the command 'sh' ended with exit code 0, but its output stayed open and silent for "
            "0 s");
  EXPECT_EQ(command->settle()->exitCode, 0);
  EXPECT_TRUE(awaitEndOf("child"));
}

TEST_F(CommandThatLeavesChildren, LeavesThoseAloneThatDoNotWrite) {
  EXPECT_EQ(outputOf("(: <\"$0/go\"; echo >\"$0/done\") >&- &"), "");
  command.reset();
  EXPECT_TRUE(eventually([this] {
    go();
    return std::filesystem::exists(folder / "done");
  }));
}

TEST_F(CommandThatIsInterrupted, GetsTheSignalThatCame) {
  whenIdle = [this] {
    if (awaitFile("ready")) stop.note(SIGINT);
  };
  startShell("trap 'exit 9' INT; echo >\"$0/ready\"; sleep 1000");
  EXPECT_THROW(readAll(), Interrupted);
  command->interrupt();
  EXPECT_EQ(command->settle()->exitCode, 9);
}

TEST_F(CommandThatIsInterrupted, IsKilledWhenItDoesNotEnd) {
  grace = milliseconds(1);
  startShell("trap '' TERM; echo >\"$0/ready\"; while :; do sleep 1000; done");
  ASSERT_TRUE(awaitFile("ready"));
  command->interrupt();
  EXPECT_EQ(command->settle()->signal, SIGKILL);
}

TEST_F(CommandThatIsInterrupted, EndsThoughItWasStopped) {
  startShell("echo $$ >\"$0/ready\"; kill -STOP $$; exec sleep 1000");
  ASSERT_TRUE(awaitFile("ready"));
  command->interrupt();
  EXPECT_EQ(command->settle()->signal, SIGTERM);
}

TEST_F(CommandThatIsInterrupted, TakesItsChildrenAlong) {
  startShell("sleep 1000 & echo $! >\"$0/child\"; echo >\"$0/ready\"; wait");
  ASSERT_TRUE(awaitFile("ready"));
  command->interrupt();
  EXPECT_EQ(command->settle()->signal, SIGTERM);
  EXPECT_TRUE(awaitEndOf("child"));
}

TEST_F(CommandThatIsInterrupted, IsSettledByTheDestructorToo) {
  startShell("echo $$ >\"$0/ready\"; exec sleep 1000");
  ASSERT_TRUE(awaitFile("ready"));
  command.reset();
  EXPECT_TRUE(awaitEndOf("ready"));
}
