// Streams into real backup engines. Each one's own tools say what it has stored.

#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <signal.h>
#include <sstream>
#include <tuple>

#include "integration/DaemonFixture.h"
#include "integration/engines/Engines.h"
#include "integration/engines/Producer.h"
#include "support/Child.h"
#include "support/EngineProcesses.h"

using korvex::test::Engine;
using korvex::test::eventually;
using korvex::test::kEngines;
using korvex::test::Process;
using korvex::test::Producer;
using testing::ContainsRegex;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

/// More than queue, pipe and programs on the way can hold: the engine must have some of it.
constexpr std::size_t kBytesThatReachTheEngine = 6000000;
constexpr std::size_t kBytesOfAWholeStream = 2000000;

using Words = std::vector<std::string>;

class RealEngine : public DaemonFixture {
 protected:
  explicit RealEngine(const Engine& engine) : engine_(engine) {}

  void SetUp() override {
    for (const std::string program : {engine_.program, engine_.serverProgram})
      if (!program.empty() && !succeeds("command -v " + program))
        GTEST_SKIP() << program << " is not installed";
  }

  void makeStore() {
    ASSERT_NO_FATAL_FAILURE(startServer());
    ASSERT_TRUE(succeeds(engine_.prepare)) << said_;
  }

  /// Nothing for an engine without one. Again: with the same store, after the other has ended.
  void startServer() {
    if (*engine_.server == '\0') return;
    server_.reset();
    const std::string host = "127.0.0.1:";
    auto server = std::make_unique<Process>(shell(engine_.server, {}));
    std::string said;
    ASSERT_TRUE(eventually([&] {
      said = server->output() + server->errors();
      return said.find(host) != said.npos && said.find('\n', said.find(host)) != said.npos;
    })) << said;
    const std::size_t port = said.find(host) + host.size();
    url_ = "http://" + host + said.substr(port, said.find_first_not_of("0123456789", port) - port);
    server_ = std::move(server);
  }

  std::unique_ptr<Process> startDaemon(const Words& more = {}) const {
    Words command = {KORVEXD_PROGRAM, "--queue", queue_, "--exec", engine_.command};
    command.insert(command.end(), more.begin(), more.end());
    auto daemon = std::make_unique<Process>(inStore(command));
    EXPECT_TRUE(awaitServing(*daemon)) << daemon->errors();
    return daemon;
  }

  /// A producer of whose stream the engine has a part.
  std::unique_ptr<Producer> producerInMidstream() const {
    auto producer = std::make_unique<Producer>(queue_, folder_ / "pipe");
    EXPECT_TRUE(producer->feed(kBytesThatReachTheEngine)) << producer->process().errors();
    return producer;
  }

  /// Stores a whole stream, and finds it restored and nothing besides it.
  void expectToStoreOneStreamOnly() {
    std::ofstream(folder_ / "whole", std::ios::binary) << korvex::test::noise(kBytesOfAWholeStream);
    Process send({KORVEX_PROGRAM, "send", "--queue", queue_, folder_ / "whole"});
    ASSERT_EQ(send.wait(), 0) << send.errors();
    const std::vector<std::string> names = stored();
    ASSERT_THAT(names, SizeIs(1));
    EXPECT_TRUE(succeeds("{ " + std::string(engine_.restore) + "; } >\"$2\"",
                         {names.at(0), folder_ / "restored"}))
        << said_;
    EXPECT_TRUE(korvex::test::contentsOf(folder_ / "whole") ==
                korvex::test::contentsOf(folder_ / "restored"));
    EXPECT_TRUE(succeeds(engine_.check)) << said_;
  }

  std::vector<std::string> stored() {
    Process list(shell(engine_.list, {}));
    EXPECT_EQ(list.wait(), 0) << list.errors();
    std::istringstream lines(list.output());
    return {std::istream_iterator<std::string>(lines), {}};
  }

  /// Has the store on a file system of this size, or gives the reason why that cannot be.
  std::string limitStore(const std::string& size) {
    const char* flag = korvex::test::isRoot() ? "-m" : "-Urm";
    disk_ = std::make_unique<Process>(
        Words{"/usr/bin/unshare", flag, "/bin/sh", "-c",
              "mount -t tmpfs -o size=" + size + " none \"$0\" && echo ready && exec sleep 1000",
              output_});
    eventually([&] {
      return !disk_->output().empty() || disk_->wait(std::chrono::milliseconds(0)).has_value();
    });
    if (disk_->output().empty()) return disk_->errors();
    around_ = {"/usr/bin/nsenter", "-t", std::to_string(disk_->id()), "-m"};
    if (!korvex::test::isRoot()) around_.insert(around_.end(), {"-U", "--preserve-credentials"});
    return "";
  }

  bool succeeds(const std::string& script, const Words& arguments = {}) {
    Process process(shell(script, arguments));
    const bool isGood = process.wait() == 0;
    said_ = process.output() + process.errors();
    return isGood;
  }

  bool awaitNoProcess() const {
    return eventually([&] { return korvex::test::processesFor(queue_).empty(); });
  }

  const Engine& engine_;
  std::string said_;  ///< by the last script

 private:
  /// A command line that runs in the store's folder with the settings of all engines.
  Words inStore(const Words& command) const {
    Words words = around_;
    words.insert(
        words.end(),
        {"/usr/bin/env", "-C", output_, "-u", "AWS_CA_BUNDLE", "HOME=" + folder_.path(),
         "PATH=" KORVEX_NODE_PROGRAMS ":" + std::string(::getenv("PATH")), "RESTIC_PASSWORD=secret",
         "RESTIC_REPOSITORY=" + (server_ ? "rest:" + url_ : "repository"),
         "RCLONE_S3_PROVIDER=Other", "RCLONE_S3_ENDPOINT=" + url_, "RCLONE_S3_ACCESS_KEY_ID=S3RVER",
         "RCLONE_S3_SECRET_ACCESS_KEY=S3RVER", "BORG_BASE_DIR=" + folder_.path(),
         "BORG_REPO=" + output_ + "/repository", "BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK=yes"});
    words.insert(words.end(), command.begin(), command.end());
    return words;
  }

  Words shell(const std::string& script, const Words& arguments) const {
    Words command = {"sh", "-c", script, "sh"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return inStore(command);
  }

  Words around_;
  std::string url_;
  std::unique_ptr<Process> disk_;
  std::unique_ptr<Process> server_;
};

/// What takes part in a stream, to be stopped or killed.
struct Scene {
  Process& producer;
  Process& daemon;
  std::string queue;
  std::string engineProgram;

  pid_t keeper() const { return korvex::test::keepersFor(queue).at(0); }

  /// Not the shell around it.
  pid_t engine() const {
    for (const pid_t process : korvex::test::processesFor(queue))
      if (nameOf(process) == engineProgram) return process;
    ADD_FAILURE() << "no " << engineProgram << " is running";
    return ::getpid();
  }

 private:
  static std::string nameOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
  }
};

/// One way for a stream to end too early.
struct Ending {
  const char* name;
  void (*happen)(Scene&);
  const char* told;  ///< what the producer says, when it lives and is told anything
  Words options;     ///< of the daemon
};

std::ostream& operator<<(std::ostream& out, const Ending& ending) { return out << ending.name; }

const Ending kEndings[] = {
    {"Stop",
     [](Scene& scene) {
       scene.producer.signal(SIGTERM);
       EXPECT_EQ(scene.producer.wait(), -SIGTERM);
     },
     "",
     {}},
    {"DeathOfTheProducerAndTheNext", [](Scene& scene) { scene.producer.killNow(); }, "", {}},
    {"DeathOfTheProducerAndSilence",
     [](Scene& scene) {
       scene.producer.killNow();
       // It may have died with the queue's lock, which is noticed earlier.
       EXPECT_TRUE(eventually([&] {
         const std::string log = scene.daemon.errors();
         return log.find("no batch for 10 seconds") != std::string::npos ||
                log.find("a process died with the queue's lock") != std::string::npos;
       })) << scene.daemon.errors();
     },
     "",
     {"--idle-timeout", "10"}},  // longer than an engine takes to start
    {"DeathOfTheDaemon", [](Scene& scene) { scene.daemon.killNow(); }, "", {}},
    {"EndOfTheDaemon",
     [](Scene& scene) {
       scene.daemon.signal(SIGTERM);
       EXPECT_EQ(scene.daemon.wait(), 0);
     },
     "",
     {}},
    {"DeathOfTheKeeper",
     [](Scene& scene) { ::kill(scene.keeper(), SIGKILL); },
     "the engine's keeper was killed",
     {}},
    {"DeathOfTheEngine",
     [](Scene& scene) { ::kill(scene.engine(), SIGKILL); },
     "the engine (was killed by signal 9|exited with code 137)",
     {}},
};

class RealEngineCut : public RealEngine,
                      public testing::WithParamInterface<std::tuple<Engine, Ending>> {
 protected:
  RealEngineCut() : RealEngine(std::get<Engine>(GetParam())) {}

  const Ending& ending() const { return std::get<Ending>(GetParam()); }

  void expectToTell(Producer& producer) const {
    if (*ending().told == '\0') return;
    EXPECT_EQ(producer.feedUntilItEnds(), 1);
    EXPECT_THAT(producer.process().errors(), ContainsRegex(ending().told));
  }
};

class RealEngineStream : public RealEngine, public testing::WithParamInterface<Engine> {
 protected:
  RealEngineStream() : RealEngine(GetParam()) {}
};

std::string engineName(const testing::TestParamInfo<Engine>& info) { return info.param.name; }

std::string cutName(const testing::TestParamInfo<std::tuple<Engine, Ending>>& info) {
  return std::string(std::get<Engine>(info.param).name) + "After" +
         std::get<Ending>(info.param).name;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Engines, RealEngineStream, testing::ValuesIn(kEngines), engineName);
INSTANTIATE_TEST_SUITE_P(Engines, RealEngineCut,
                         testing::Combine(testing::ValuesIn(kEngines), testing::ValuesIn(kEndings)),
                         cutName);

TEST_P(RealEngineStream, IsRestoredAsItWas) {
  ASSERT_NO_FATAL_FAILURE(makeStore());
  const auto daemon = startDaemon();
  expectToStoreOneStreamOnly();
}

TEST_P(RealEngineStream, KeepsNothingOfAFailingCommand) {
  ASSERT_NO_FATAL_FAILURE(makeStore());
  const auto daemon = startDaemon();
  // Twice, for the command's own pipe may hold some, too.
  std::ofstream(folder_ / "cut", std::ios::binary)
      << korvex::test::noise(2 * kBytesThatReachTheEngine);
  Process send({KORVEX_PROGRAM, "send", "--queue", queue_, "--from-command", "--", "sh", "-c",
                "cat \"$0\"; exit 3", folder_ / "cut"});
  EXPECT_EQ(send.wait(), 1);
  EXPECT_EQ(send.errors(), "korvex: the command 'sh' ended with exit code 3\n");
  EXPECT_TRUE(awaitNoProcess());
  EXPECT_THAT(stored(), IsEmpty());
  EXPECT_TRUE(succeeds(engine_.check)) << said_;
  expectToStoreOneStreamOnly();
}

TEST_P(RealEngineCut, KeepsTheWholeStreamAfterItOnly) {
  ASSERT_NO_FATAL_FAILURE(makeStore());
  auto daemon = startDaemon(ending().options);
  {
    const auto producer = producerInMidstream();
    Scene scene{producer->process(), *daemon, queue_, std::get<Engine>(GetParam()).program};
    ending().happen(scene);
    expectToTell(*producer);
  }
  if (daemon->wait(std::chrono::milliseconds(0))) daemon = startDaemon({"--replace"});
  expectToStoreOneStreamOnly();
}

TEST_P(RealEngineStream, IsFailedByAFullDisk) {
  const std::string defect = limitStore("100m");
  if (!defect.empty()) GTEST_SKIP() << "no file system of one's own: " << defect;
  ASSERT_NO_FATAL_FAILURE(makeStore());
  ASSERT_TRUE(succeeds("fallocate -l 88m filler")) << said_;
  {
    const auto daemon = startDaemon({"--exec-timeout", "5"});
    Producer producer(queue_, folder_ / "pipe");
    EXPECT_EQ(producer.feedUntilItEnds(), 1);
    EXPECT_THAT(producer.process().errors(), ContainsRegex("failed: status 5: the engine"));
    end(*daemon);
    EXPECT_TRUE(awaitNoProcess());
  }
  ASSERT_TRUE(succeeds("rm filler")) << said_;
  ASSERT_NO_FATAL_FAILURE(startServer());  // not every server goes on after a full disk
  const auto daemon = startDaemon();
  expectToStoreOneStreamOnly();
}
