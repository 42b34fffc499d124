// The daemon as a service: what its manager hears, and when it would be restarted.

#include <cerrno>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "integration/ExecFixture.h"
#include "support/FailingCalls.h"
#include "support/NotifySocket.h"

using korvex::test::FailingCalls;
using korvex::test::FailureOrder;
using korvex::test::NotifySocket;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr std::chrono::milliseconds kWatchdog{400};

class DaemonService : public ExecFixture {
 protected:
  /// Starts a daemon as systemd would, with this sink.
  std::unique_ptr<Process> startService(const std::vector<std::string>& sink,
                                        const std::vector<std::string>& prefix = {},
                                        std::chrono::milliseconds watchdog = kWatchdog) {
    std::vector<std::string> command = prefix;
    command.insert(command.end(), {"/usr/bin/env", "NOTIFY_SOCKET=" + manager_.name(),
                                   "WATCHDOG_USEC=" + std::to_string(watchdog.count() * 1000),
                                   KORVEXD_PROGRAM, "--queue", queue_});
    command.insert(command.end(), sink.begin(), sink.end());
    return std::make_unique<Process>(command);
  }

  bool awaitFeeding(int times) {
    for (int i = 0; i < times; ++i) {
      if (manager_.await("WATCHDOG=1").empty()) return false;
    }
    return true;
  }

  NotifySocket manager_{folder_ / "notify"};
};

}  // namespace

TEST_F(DaemonService, IsReadyOnlyWhenProducersMayCome) {
  const auto daemon = startService({"--discard"});
  EXPECT_EQ(manager_.await("READY=1"),
            "READY=1\nSTATUS=1 queue, 0 open streams, 0 complete, 0 incomplete, 0 B");
  EXPECT_THAT(stream("abc"), StartsWith("stored bytes=3 ")) << "no queue yet";
  EXPECT_EQ(manager_.await("STATUS=1 queue, 0 open streams, 1 complete"),
            "STATUS=1 queue, 0 open streams, 1 complete, 0 incomplete, 3 B");
  daemon->signal(SIGTERM);
  EXPECT_EQ(manager_.await("STOPPING=1"), "STOPPING=1");
  EXPECT_EQ(daemon->wait(), 0);
}

TEST_F(DaemonService, IsNeverReadyWhenItCannotStart) {
  const auto daemon = startService({"--output", "/nonexistent"});
  EXPECT_EQ(daemon->wait(), 1);
  EXPECT_EQ(manager_.next(std::chrono::milliseconds(0)), "");
}

TEST_F(DaemonService, HearsOfAReloadAndItsEnd) {
  const std::string config = folder_ / "korvexd.toml";
  const std::string other = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(other);
  std::ofstream(config) << "[defaults]\ndiscard = true\n";
  const auto daemon = startService({"--config", config});
  ASSERT_NE(manager_.await("READY=1"), "") << daemon->errors();
  std::ofstream(config, std::ios::app) << "[queue." << other << "]\n";
  daemon->signal(SIGHUP);
  EXPECT_THAT(manager_.await("RELOADING=1"), StartsWith("RELOADING=1\nMONOTONIC_USEC="));
  EXPECT_THAT(manager_.await("READY=1"), StartsWith("READY=1\nSTATUS=2 queues, "));
  end(*daemon);
}

TEST_F(DaemonService, KeepsTheManagersVariablesFromItsEngines) {
  const auto daemon = startService({"--exec", script("env >$0/env; cat >/dev/null")});
  ASSERT_NE(manager_.await("READY=1"), "") << daemon->errors();
  EXPECT_EQ(replyTo("abc").status, 0u);
  const std::string environment = korvex::test::contentsOf(output_ + "/env");
  EXPECT_THAT(environment, HasSubstr("KORVEX_QUEUE="));
  EXPECT_THAT(environment, testing::Not(HasSubstr("NOTIFY_SOCKET=")));
  EXPECT_THAT(environment, testing::Not(HasSubstr("WATCHDOG_")));
}

TEST_F(DaemonService, IsNotRestartedWhileAnEngineHangs) {
  // Long, for a machine that stalls is no loop that does.
  const auto daemon = startService({"--exec", recorderCommand()}, {}, std::chrono::seconds(3));
  ASSERT_NE(manager_.await("READY=1"), "") << daemon->errors();
  const auto to = openRecorded("abc");
  const auto engines = korvex::test::processesFor(queue_);
  for (const pid_t engine : engines) {
    if (engine != keeper()) ::kill(engine, SIGSTOP);
  }
  // More than its pipe holds, and less than that and the queue.
  for (int i = 0; i < 20; ++i) write(*to, std::string(100000, 'x'));
  to->flush_shm_buffer(kTimeout);
  manager_.forget();
  EXPECT_TRUE(awaitFeeding(4)) << "two periods";
  EXPECT_THAT(daemon->errors(), testing::Not(HasSubstr("stuck")));
}

#ifdef KORVEX_FAILING_CALLS
TEST_F(DaemonService, IsRestartedWhenALoopIsStuck) {
  FailingCalls calls(output_, folder_ / "orders");
  // Not too short, or the calls before the one that hangs may seem stuck, too.
  constexpr std::chrono::seconds watchdog(2);
  const auto daemon = startService({"--output", output_}, calls.prefix(), watchdog);
  ASSERT_NE(manager_.await("READY=1"), "") << daemon->errors();
  calls.fail(5, 0, FailureOrder::Kind::Hanging);
  const auto to = writer();
  to->open();
  write(*to, "abc");
  to->close();
  ASSERT_TRUE(awaitLog(*daemon, queue_ + ": stuck for 1000 ms or longer"));
  manager_.forget();
  for (const auto end = std::chrono::steady_clock::now() + 2 * watchdog;
       std::chrono::steady_clock::now() < end;) {
    EXPECT_THAT(manager_.next(watchdog), testing::Not(StartsWith("WATCHDOG")));
  }
  EXPECT_TRUE(calls.stop());
  EXPECT_TRUE(awaitFeeding(1)) << "it goes on";
  EXPECT_THAT(awaitReply(*to).message, StartsWith("stored bytes=3 "));
  EXPECT_TRUE(awaitLog(*daemon, queue_ + ": making progress again"));
}

TEST_F(DaemonService, ReadsItsConfigurationAgainWhileACaptureHangs) {
  FailingCalls calls(output_, folder_ / "orders");
  const std::string config = folder_ / "korvexd.toml";
  std::ofstream(config) << "[defaults]\ndiscard = true\ncapture = '" << output_ << "'\n";
  const auto daemon = startService({"--config", config}, calls.prefix());
  ASSERT_NE(manager_.await("READY=1"), "") << daemon->errors();
  calls.fail(1, 0, FailureOrder::Kind::Hanging);
  writer()->open();
  ASSERT_TRUE(awaitLog(*daemon, queue_ + ": stuck for"));
  std::ofstream(config) << "[defaults]\ndiscard = true\n";
  daemon->signal(SIGHUP);
  EXPECT_TRUE(awaitLog(*daemon, "configuration reloaded"));
  EXPECT_TRUE(calls.stop());
  end(*daemon);
}

TEST_F(DaemonService, EndsByAnotherSignalWhileASinkHangs) {
  FailingCalls calls(output_, folder_ / "orders");
  const std::string other = korvex::test::uniqueQueueName();
  const auto daemon = startService({"--queue", other, "--output", output_}, calls.prefix());
  ASSERT_NE(manager_.await("READY=1"), "") << daemon->errors();
  calls.fail(1, 0, FailureOrder::Kind::Hanging);
  writer()->open();
  ASSERT_TRUE(awaitLog(*daemon, queue_ + ": stuck for"));
  for (int i = 0; i < 3; ++i) daemon->signal(SIGTERM);
  ASSERT_TRUE(awaitLog(*daemon, queue_ + ": the sink has not returned for 7 seconds"));
  EXPECT_FALSE(korvex::test::queueExists(other)) << "nobody would take what it gets";
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->wait(), 128 + SIGTERM);
  EXPECT_TRUE(korvex::test::queueExists(queue_)) << "as of a daemon that was killed";
}
#endif

TEST_F(DaemonService, WritesPrioritiesForTheJournalOnly) {
  const std::string log = folder_ / "log";
  std::ofstream(log).flush();
  struct stat file = {};
  ASSERT_EQ(::stat(log.c_str(), &file), 0);
  const std::string stream = std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino);
  for (const std::string& journal : {stream, stream + "0"}) {
    std::ofstream(log).flush();  // the same file, empty
    Process daemon({"/bin/sh", "-c", "log=$0; exec \"$@\" 2>$log", log, "/usr/bin/env",
                    "JOURNAL_STREAM=" + journal, KORVEXD_PROGRAM, "--queue", queue_, "--discard"});
    ASSERT_TRUE(korvex::test::eventually(
        [&] { return korvex::test::contentsOf(log).find("serving ") != std::string::npos; }));
    end(daemon);
    const bool hasPriority =
        korvex::test::contentsOf(log).find("\n<6>serving " + queue_ + ", 8 ") != std::string::npos;
    EXPECT_EQ(hasPriority, journal == stream);
  }
}

TEST_F(DaemonFixture, LogsEventsAsJson) {
  const auto daemon = start({"--log-format", "json"});
  stream("abc");
  end(*daemon);
  std::istringstream log(daemon->errors());
  std::vector<std::string> events;
  for (std::string line; std::getline(log, line);) {
    const auto json = nlohmann::json::parse(line);
    events.push_back(json["event"]);
    if (events.back() != "memory") {
      EXPECT_EQ(json.at("queue"), queue_);
    }
    if (events.back() == "stream_complete") {
      EXPECT_EQ(json["bytes"], 3);
      EXPECT_EQ(json["place"], output_ + "/" + streams(false).at(0));
    }
  }
  EXPECT_THAT(events,
              testing::ElementsAre("memory", "serving", "stream_opened", "stream_complete"));
}
