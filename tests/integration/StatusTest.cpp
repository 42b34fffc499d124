// What `korvex status` shows of real daemons, living, dead and asked by a signal.

#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "integration/DaemonFixture.h"
#include "integration/ToolRun.h"
#include "support/BlockedSignals.h"
#include "support/Child.h"
#include "support/DaemonQueues.h"
#include "support/LockHolder.h"
#include "support/SharedObject.h"
#include "support/Terminal.h"

namespace {

using korvex::test::blocks;
using korvex::test::eventually;
using korvex::test::RawQueue;
using korvex::test::runTool;
using korvex::test::ToolRun;
using nlohmann::json;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class Status : public DaemonFixture {
 protected:
  /// What the tool says of the queue.
  json status(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> words = {"status", "--json", "--queue", queue_};
    words.insert(words.end(), more.begin(), more.end());
    const ToolRun run = runTool(words);
    EXPECT_EQ(run.code, 0) << run.errors;
    const json found = run.json();
    EXPECT_EQ(found["queues"].size(), 1u);
    return found["queues"][0];
  }

  static std::string problems(const json& queue) { return queue["problems"].dump(); }

  /// Two sound queues that nobody serves.
  struct Pair {
    explicit Pair(const std::string& name)
        : batches(name, 4, 300), replies(name + "Response", 4, 132) {}

    RawQueue batches;
    RawQueue replies;
  };

  void writeStats(std::uint64_t bytes, std::time_t writtenAt) const {
    const json open = {{"since", "2020-01-01T00:00:00Z"}, {"bytes", bytes}, {"place", "there"}};
    const std::string temporary = stats_ + ".new";
    std::ofstream(temporary) << json{
        {"queues", {{queue_, {{"bytes", bytes}, {"open_stream", open}}}}}};
    const timespec times[] = {{writtenAt, 0}, {writtenAt, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, temporary.c_str(), times, 0), 0);
    ASSERT_EQ(::rename(temporary.c_str(), stats_.c_str()), 0);
  }

  const std::time_t since_ = 1577836800;  // the same in seconds
  const std::string stats_ = folder_ / "stats.json";
};

/// The command that draws one queue again and again.
std::vector<std::string> watchOn(const korvex::test::Terminal& terminal, const std::string& queue) {
  return {"/bin/sh",      "-c",  "exec \"$0\" status --watch --queue \"$1\" >\"$2\"",
          KORVEX_PROGRAM, queue, terminal.name()};
}

/// The objects that a tool has printed so far, one a line.
std::vector<json> objectsOf(korvex::test::Process& tool) {
  std::vector<json> objects;
  std::istringstream lines(tool.output());
  for (std::string line; std::getline(lines, line) && !lines.eof();) {
    objects.push_back(json::parse(line));
  }
  return objects;
}

}  // namespace

TEST_F(Status, ShowsWhoServesAPair) {
  const auto daemon = start({"--mode", "0640", "--max-messages", "5"});
  const json queue = status();
  EXPECT_EQ(queue["state"], "served");
  EXPECT_EQ(queue["servedBy"], json({{"id", daemon->id()}, {"program", "korvexd"}}));
  EXPECT_EQ(queue["batches"]["condition"], "sound");
  EXPECT_EQ(queue["batches"]["mode"], "0640");
  EXPECT_EQ(queue["batches"]["error"], "");
  EXPECT_EQ(queue["batches"]["uid"], ::geteuid());
  EXPECT_EQ(queue["batches"]["maxMessages"], 5);
  EXPECT_EQ(queue["batches"]["lock"]["held"], false);
  EXPECT_EQ(queue["replies"]["name"], queue_ + "Response");
  EXPECT_THAT(queue["problems"], IsEmpty());
  const ToolRun text = runTool({"status", "--queue", "/" + queue_});
  EXPECT_THAT(text.output,
              HasSubstr(queue_ + "  served  korvexd (" + std::to_string(daemon->id())));
  end(*daemon);
}

TEST_F(Status, FindsItAmongAll) {
  const auto daemon = start();
  const ToolRun run = runTool({"status", "--json"});
  EXPECT_EQ(run.code, 0);
  const json found = run.json();
  std::vector<std::string> names;
  for (const json& queue : found["queues"]) names.push_back(queue["name"]);
  EXPECT_THAT(names, Contains(queue_).Times(1));
  EXPECT_THAT(names, testing::Not(Contains(queue_ + "Response")));
  EXPECT_THAT(names, testing::Not(Contains("")));
  end(*daemon);
}

TEST_F(Status, SaysThatADaemonIsDead) {
  start()->killNow();
  const json queue = status();
  EXPECT_EQ(queue["state"], "abandoned");
  EXPECT_EQ(queue["servedBy"], json());
  EXPECT_THAT(problems(queue), HasSubstr("no living process serves it"));
}

TEST_F(Status, FailsForAQueueThatIsNotThere) {
  const ToolRun run = runTool({"status", "--queue", queue_});
  EXPECT_EQ(run.code, 1);
  EXPECT_EQ(run.errors, "korvex: queue '" + queue_ + "' does not exist: no daemon serves it\n");
  EXPECT_EQ(runTool({"status", "--queue", queue_, "--json"}).json()["exitCode"], 1);
}

TEST_F(Status, CountsWhatWaits) {
  Pair pair(queue_);
  pair.batches.post("12345", 5);
  pair.batches.post("123456789", 9, 1);
  for (int i = 0; i < 4; ++i) pair.replies.post("123", 3);
  const json queue = status();
  EXPECT_EQ(queue["batches"]["messages"], 2);
  EXPECT_EQ(queue["batches"]["bytes"], 14);
  EXPECT_EQ(queue["replies"]["bytes"], 12);
  EXPECT_THAT(problems(queue), HasSubstr(queue_ + "Response is full: 4 messages wait"));
}

TEST_F(Status, TellsALivingLockOwnerFromADeadOne) {
  const Pair pair(queue_);
  {
    const korvex::test::LockHolder holder(queue_);
    const json lock = status()["batches"]["lock"];
    EXPECT_EQ(lock["held"], true);
    EXPECT_EQ(lock["owner"]["state"], "alive");
  }
  const json queue = status();
  const json owner = queue["batches"]["lock"]["owner"];
  if (owner["state"] == "unknown") GTEST_SKIP() << "not in the initial PID namespace";
  EXPECT_EQ(owner["state"], "dead");
  EXPECT_THAT(problems(queue),
              HasSubstr("the lock of " + queue_ + " is held by thread " +
                        std::to_string(owner["id"].get<int>()) + ", which is dead"));
}

TEST_F(Status, ShowsHalfOfAPair) {
  const RawQueue replies(queue_ + "Response", 4, 132);
  const json queue = status();
  EXPECT_EQ(queue["batches"]["condition"], "absent");
  EXPECT_THAT(problems(queue), HasSubstr(queue_ + " is missing"));
}

TEST_F(Status, ShowsAQueueThatIsBeingMade) {
  struct stat ids = {};
  ASSERT_EQ(::stat("/proc/self/ns/pid", &ids), 0);
  const std::string process = std::to_string(::getpid());
  const korvex::test::SharedObject halfMade(".korvexd-" + process + "-" +
                                            std::to_string(ids.st_ino) + "-1-2");
  const json expected = {{"name", halfMade.name()}, {"process", ::getpid()}, {"maker", "alive"}};
  EXPECT_THAT(runTool({"status", "--json"}).json()["halfMade"], Contains(expected));
  EXPECT_THAT(runTool({"status"}).output, HasSubstr(halfMade.name() + ": half made by "));
}

TEST_F(Status, OfADeadDaemonShowsNoOpenStream) {
  const Pair pair(queue_);
  writeStats(1000, std::time(nullptr));
  const json streams = status({"--stats", stats_})["streams"];
  EXPECT_EQ(streams["complete"], 0) << "there are statistics";
  EXPECT_EQ(streams["open"], json());
}

TEST_F(Status, FindsTheStatisticsBehindAnEqualsSign) {
  const auto daemon = start({"--stats=" + stats_});
  stream("abc");
  json streams;
  EXPECT_TRUE(eventually([&] {
    streams = status()["streams"];
    return !streams.is_null() && streams["lastComplete"]["bytes"] == 3;
  })) << streams;
  EXPECT_THAT(runTool({"status", "--queue", queue_}).output, HasSubstr(" ago), 3 B\n"));
  end(*daemon);
}

TEST_F(Status, FindsTheStatisticsByTheDaemonsCommandLine) {
  const auto daemon = start({"--stats", stats_});
  stream("abc");
  const auto open = writer();
  open->open();
  write(*open, "12345");
  open->flush_shm_buffer(kTimeout);
  json streams;
  ASSERT_TRUE(eventually([&] {
    streams = status()["streams"];
    return !streams.is_null() && !streams["open"].is_null() && streams["open"]["bytes"] == 5;
  })) << streams;
  EXPECT_EQ(streams["lastComplete"]["bytes"], 3);
  EXPECT_EQ(streams["open"]["place"], output_ + "/" + this->streams(true)[0]);
  open->stop(true);
  ASSERT_TRUE(eventually([&] {
    streams = status()["streams"];
    return !streams["lastIncomplete"].is_null();
  }));
  EXPECT_EQ(streams["incomplete"], 1);
  EXPECT_EQ(streams["lastIncomplete"]["reason"], "stopped by the producer");
  EXPECT_EQ(streams["open"], json());
  const std::string text = runTool({"status", "--queue", queue_}).output;
  EXPECT_THAT(text, HasSubstr("no stream is open\n"));
  EXPECT_THAT(text, HasSubstr("failed streams: 1, the last "));
  EXPECT_THAT(text, HasSubstr(", 5 B: stopped by the producer\n"));
  end(*daemon);
}

TEST_F(Status, FindsTheStatisticsByTheDaemonsConfiguration) {
  const std::string config = folder_ / "korvexd.toml";
  std::ofstream(config) << "[daemon]\nstats = '" << stats_ << "'\n[queue." << queue_
                        << "]\noutput = '" << output_ << "'\n";
  for (const auto& words : {std::vector<std::string>{"--config", config}, {"--config=" + config}}) {
    std::vector<std::string> command = words;
    command.insert(command.begin(), KORVEXD_PROGRAM);
    Process daemon(command);
    ASSERT_TRUE(awaitServing(daemon)) << daemon.errors();
    stream("abc");
    EXPECT_TRUE(eventually([&] {
      const json streams = status()["streams"];
      return !streams.is_null() && streams["complete"] == 1;
    })) << words[0];
    end(daemon);
  }
}

TEST_F(Status, DoesNotBelieveAForeignClaimHolder) {
  if (!korvex::test::isRoot()) GTEST_SKIP() << "needs another user";
  const Pair pair(queue_);
  const std::string object = "/dev/shm/" + queue_;
  ASSERT_EQ(::chmod(object.c_str(), 0666), 0);
  writeStats(1000, std::time(nullptr));
  for (const char* user : {"60001", "0"}) {
    Process holder({"/usr/bin/setpriv", std::string("--reuid=") + user, "--clear-groups",
                    "/usr/bin/flock", "-F", object, "/bin/sh", "-c", "kill -STOP $$", "sh",
                    "--stats", stats_});
    ASSERT_TRUE(eventually([&] { return status()["state"] == "served"; })) << holder.errors();
    // Its command line is that of the shell once it has stopped itself.
    if (*user == '0') {
      EXPECT_TRUE(eventually([&] { return !status()["streams"].is_null(); }));
    } else {
      EXPECT_EQ(status()["streams"], json());
    }
    holder.killNow();
  }
}

TEST_F(Status, FailsForStatisticsThatCannotBeRead) {
  const Pair pair(queue_);
  ASSERT_EQ(::mkfifo((folder_ / "pipe").c_str(), 0600), 0);
  std::ofstream(folder_ / "text") << "no statistics";
  std::ofstream(folder_ / "list") << "[1]";
  std::ofstream(folder_ / "huge") << "{}";
  ASSERT_EQ(::truncate((folder_ / "huge").c_str(), off_t{1} << 40), 0);
  for (const char* name : {"missing", "pipe", "text", "list", "huge", "out"}) {
    const std::string path = folder_ / name;
    const ToolRun run = runTool({"status", "--queue", queue_, "--stats", path});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.errors, StartsWith("korvex: cannot read the statistics '" + path + "': "));
    EXPECT_THAT(run.output, HasSubstr("abandoned")) << "the rest is shown all the same";
  }
}

TEST_F(Status, WatchesUntilASignalComes) {
  const auto daemon = start();
  Process tool({KORVEX_PROGRAM, "status", "--watch", "--json", "--queue", queue_});
  ASSERT_TRUE(eventually([&] { return objectsOf(tool).size() >= 2; }));
  EXPECT_EQ(objectsOf(tool)[1]["queues"][0]["state"], "served");
  end(*daemon);
  ASSERT_TRUE(eventually([&] { return objectsOf(tool).back()["queues"].empty(); }));
  tool.signal(SIGINT);
  EXPECT_EQ(tool.wait(), -SIGINT);
}

TEST_F(Status, ShowsTheRateBetweenTwoLooks) {
  const auto daemon = start();
  const std::time_t later = std::time(nullptr) + 1000;  // never too long ago
  writeStats(1000, later);
  Process tool(
      {KORVEX_PROGRAM, "status", "--watch", "--json", "--queue", queue_, "--stats", stats_});
  ASSERT_TRUE(eventually([&] { return !objectsOf(tool).empty(); }));
  writeStats(3001000, later + 2);
  EXPECT_TRUE(eventually([&] {
    return objectsOf(tool).back()["queues"][0]["streams"]["open"]["bytesPerSecond"] == 1500000.0;
  })) << tool.output();
  writeStats(5, later + 4);  // of a daemon that has counted from 0 again
  json open;
  ASSERT_TRUE(eventually([&] {
    open = objectsOf(tool).back()["queues"][0]["streams"]["open"];
    return open["bytes"] == 5;
  }));
  EXPECT_EQ(open["bytesPerSecond"], 1500000.0);
  end(*daemon);
}

TEST_F(Status, ShowsNoRateOnceTheStatisticsAreOld) {
  const auto daemon = start();
  writeStats(1000, since_ + 10);
  EXPECT_EQ(status({"--stats", stats_})["streams"]["open"]["bytesPerSecond"], 100.0)
      << "on the average";
  Process tool(
      {KORVEX_PROGRAM, "status", "--watch", "--json", "--queue", queue_, "--stats", stats_});
  ASSERT_TRUE(eventually([&] { return !objectsOf(tool).empty(); }));
  EXPECT_EQ(objectsOf(tool)[0]["queues"][0]["streams"]["open"]["bytesPerSecond"], 0);
  end(*daemon);
}

TEST_F(Status, RedrawsOnATerminal) {
  const Pair pair(queue_);
  korvex::test::Terminal terminal(60);
  Process tool(watchOn(terminal, queue_));
  const std::string clear = "\x1b[H\x1b[J";
  ASSERT_TRUE(eventually([&] {
    const std::string& text = terminal.text();
    return text.find(clear, text.find(clear) + 1) != std::string::npos;
  })) << terminal.text();
  std::istringstream lines(terminal.text());
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 60 + clear.size());
  tool.signal(SIGTERM);
  EXPECT_EQ(tool.wait(), -SIGTERM);
}

TEST_F(Status, CutsNothingWithoutAUsableWidth) {
  const Pair pair(queue_);
  for (const unsigned short columns : std::initializer_list<unsigned short>{0, 1}) {
    korvex::test::Terminal terminal(columns);
    Process tool(watchOn(terminal, queue_));
    EXPECT_TRUE(eventually([&] { return terminal.text().find(queue_) != std::string::npos; }))
        << columns;
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.wait(), -SIGTERM);
  }
}

TEST_F(Status, CutsLinesBetweenCharacters) {
  std::string name = queue_ + "-";
  for (int i = 0; i < 60; ++i) name += "\u00fc";
  const Pair pair(name);
  korvex::test::Terminal terminal(60);
  Process tool(watchOn(terminal, name));
  std::string shown;  // all the terminal has room for, but for its last column
  for (std::size_t columns = queue_.size() + 1; columns < 59; ++columns) shown += "\u00fc";
  EXPECT_TRUE(eventually([&] {
    return terminal.text().find("\n" + queue_ + "-" + shown + "\r\n") != std::string::npos;
  })) << terminal.text();
  tool.signal(SIGTERM);
  EXPECT_EQ(tool.wait(), -SIGTERM);
}

TEST_F(Status, IsLoggedByTheDaemonWhenASignalAsks) {
  const auto daemon = start();
  daemon->signal(SIGUSR1);
  EXPECT_TRUE(awaitLog(*daemon, queue_ + ": idle, no complete stream yet"));
  stream("abc");
  const auto open = writer();
  open->open();
  write(*open, "12345");
  open->flush_shm_buffer(kTimeout);
  // The bytes come after the record that opens the stream.
  EXPECT_TRUE(eventually([&] {
    daemon->signal(SIGUSR1);
    return daemon->errors().find("Z, 5 bytes, " + output_) != std::string::npos;
  })) << daemon->errors();
  EXPECT_THAT(daemon->errors(), HasSubstr(queue_ + ": stream open since 20"));
  end(*daemon);
}

// Not while it is only just starting either.
TEST_F(Status, SignalsThatAskNeverEndTheDaemon) {
  for (int i = 0; i < 20; ++i) {
    const auto daemon = startOnly({});
    // A thread that waits for the signal does not block it meanwhile, and serves by then.
    const auto serves = [&] {
      return daemon->errors().find("serving " + queue_) != std::string::npos;
    };
    // Before main() nobody can keep a signal from ending a process.
    ASSERT_TRUE(eventually([&] { return blocks(daemon->id(), SIGUSR1) || serves(); }));
    ASSERT_TRUE(eventually([&] {
      daemon->signal(SIGUSR1);
      return serves() || daemon->wait(std::chrono::milliseconds(0));
    }));
    end(*daemon);
  }
}

TEST_F(Status, OfASenderIsPrintedWhenASignalAsks) {
  const auto daemon = start();
  const std::string pipe = folder_ / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  Process tool(
      {KORVEX_PROGRAM, "send", "--quiet", "--segment-size", "1000", "--queue", queue_, pipe});
  const int input = ::open(pipe.c_str(), O_WRONLY | O_CLOEXEC);
  const std::string data(1000, 'x');
  ASSERT_EQ(::write(input, data.data(), data.size()), 1000);
  ASSERT_TRUE(eventually([&] { return blocks(tool.id(), SIGUSR1); }));
  ASSERT_TRUE(eventually([&] {
    tool.signal(SIGUSR1);
    return tool.errors().find("korvex: sending: 1.0 kB, ") != std::string::npos;
  })) << tool.errors();
  ::close(input);
  EXPECT_EQ(tool.wait(), 0) << tool.errors();
  end(*daemon);
}

// It has nobody to answer for, and lives on.
TEST_F(Status, IsNotEndedItselfByASignalThatAsks) {
  Process tool({KORVEX_PROGRAM, "status", "--watch", "--json", "--queue", queue_});
  ASSERT_TRUE(eventually([&] { return !objectsOf(tool).empty(); }));
  tool.signal(SIGUSR1);
  const std::size_t before = objectsOf(tool).size();
  EXPECT_TRUE(eventually([&] { return objectsOf(tool).size() > before + 1; }));
  tool.signal(SIGINT);
  EXPECT_EQ(tool.wait(), -SIGINT);
}
