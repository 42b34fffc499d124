// Whatever goes wrong in a daemon shows in its metrics.

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "integration/ExecFixture.h"
#include "queue/MessageQueue.h"
#include "support/FailingCalls.h"
#include "support/LockHolder.h"
#include "support/WireFormat.h"

using korvex::test::BatchBytes;
using korvex::test::Bytes;
using korvex::test::eventually;

namespace {

class DaemonMetrics : public ExecFixture {
 protected:
  /// The value of the sample that starts so; -1 without one. QUEUE stands for the queue's name.
  double metric(std::string sample) const {
    const std::size_t at = sample.find("QUEUE");
    if (at != std::string::npos) sample.replace(at, 5, queue_);
    std::string text;
    try {
      text = "\n" + korvex::test::contentsOf(metricsFile_);
    } catch (const std::exception&) {
      return -1;
    }
    const std::size_t line = text.find("\n" + sample);
    if (line == std::string::npos) return -1;
    return std::strtod(text.c_str() + text.find("} ", line) + 2, nullptr);
  }

  /// Starts a daemon with metrics and these options; a sink is among them.
  void startWith(const std::vector<std::string>& options,
                 const std::vector<std::string>& prefix = {}) {
    std::vector<std::string> command = prefix;
    command.insert(command.end(), {KORVEXD_PROGRAM, "--queue", queue_, "--metrics", metricsFile_});
    command.insert(command.end(), options.begin(), options.end());
    daemon_ = std::make_unique<Process>(command);
    EXPECT_TRUE(awaitServing(*daemon_)) << daemon_->errors();
  }
  void startStoring(const std::vector<std::string>& more = {}) {
    std::vector<std::string> options = {"--output", output_};
    options.insert(options.end(), more.begin(), more.end());
    startWith(options);
  }
  void startEngine(const std::string& script, const std::string& timeout = "60") {
    startWith({"--exec", "sh -c '" + script + "' " + output_, "--exec-timeout", timeout});
  }

  /// Starts one with a configuration that can change.
  void startConfigured() {
    std::ofstream(config_) << kConfiguration;
    startWith({"--config", config_, "--drain-timeout", "60"});
  }
  /// Adds these lines, and has it read the file again.
  void reloadWith(const std::string& lines) const {
    std::ofstream(config_) << kConfiguration << lines;
    daemon_->signal(SIGHUP);
  }

  /// Starts one under a watchdog, whose disk hangs with the next stream.
  void startHanging() {
    std::vector<std::string> prefix = calls_.prefix();
    prefix.push_back("WATCHDOG_USEC=400000");
    startWith({"--output", output_}, prefix);
    calls_.fail(1, 0, korvex::test::FailureOrder::Kind::Hanging);
  }

  void sendRaw(const Bytes& bytes) const {
    korvex::MessageQueue queue(queue_, korvex::MessageQueue::Clock::now());
    const auto deadline = korvex::MessageQueue::Clock::now() + korvex::test::kPatience;
    ASSERT_TRUE(queue.sendBefore(bytes.data(), bytes.size(), 1, deadline));
  }
  void sendDamaged(const std::function<void(Bytes&)>& damage) {
    startStoring();
    Bytes bytes = BatchBytes().record(0, 0).record(1, 2, "abc").bytes();
    damage(bytes);
    sendRaw(bytes);
  }

  /// A stream that no receipt is expected of.
  void sendStream() const {
    sendRaw(BatchBytes().record(0, 0).record(1, 2, "abc").record(3, 3).bytes());
  }
  void sendOpening() const { sendRaw(BatchBytes().record(0, 0).record(1, 2, "abc").bytes()); }
  void sendOpeningAndAwaitIt() const {
    sendOpening();
    EXPECT_TRUE(eventually([this] { return metric("korvex_stream_open{") == 1; }));
  }

  /// More than a pipe holds, batch after batch, until the queue is full and this holds: a daemon
  /// that is slow to start its engine still takes some then.
  template <typename Condition>
  void fillQueueUntil(Condition isEnough) const {
    const auto to = writer(queue_, 1);
    EXPECT_TRUE(eventually([&, isOpen = false]() mutable {
      try {
        if (!std::exchange(isOpen, true)) to->open();
        write(*to, std::string(100000, 'x'));
        return false;
      } catch (const Ov_ErrnoException&) {
        return isEnough();  // nobody takes it
      }
    }));
  }
  void fillQueue() const {
    fillQueueUntil([] { return true; });
  }

  void end() { DaemonFixture::end(*daemon_); }
  std::string sharedObject() const { return "/dev/shm/" + queue_; }

  static constexpr const char* kQueueFull = "korvex_queue_full_seconds_total{queue=\"QUEUE\"}";
  static constexpr const char* kConfiguration = "[defaults]\ndiscard = true\n";
  static constexpr const char* kMoreThanThereIs = "max-messages = 65536\nmax-message-size = '1G'\n";

  const std::string config_ = folder_ / "korvexd.toml";
  std::string metricsFile_ = folder_.makeFolder("metrics") + "/shop.prom";
  korvex::test::FailingCalls calls_{output_, folder_ / "orders"};
  std::unique_ptr<Process> daemon_;

 public:
  /// One way to fail, and the sample that counts it.
  struct Path {
    const char* name;
    std::string sample;
    std::function<void(DaemonMetrics&)> provoke;
  };

  static std::vector<Path> streams();
  static std::vector<Path> batches();
  static std::vector<Path> engines();
  static std::vector<Path> surroundings();
  static std::vector<Path> reloads();
  static std::vector<Path> hangs();
};

std::string sampleOf(const std::string& family, const std::string& label,
                     const std::string& value) {
  return family + "{queue=\"QUEUE\"," + label + "=\"" + value + "\"}";
}
std::string ended(const std::string& result) {
  return sampleOf("korvex_streams_total", "result", result);
}
std::string refused(const std::string& reason) {
  return sampleOf("korvex_batches_refused_total", "reason", reason);
}
std::string engineFailed(const std::string& reason) {
  return sampleOf("korvex_engine_failures_total", "reason", reason);
}

void PrintTo(const DaemonMetrics::Path& path, std::ostream* stream) { *stream << path.sample; }

std::vector<DaemonMetrics::Path> DaemonMetrics::streams() {
  using Test = DaemonMetrics;
  return {
      {"Stopped", ended("stopped"),
       [](Test& test) {
         test.startStoring();
         test.sendRaw(BatchBytes().record(0, 0).record(4, 2).bytes());
       }},
      {"CutOff", ended("cut_off"),
       [](Test& test) {
         test.startStoring();
         test.sendRaw(BatchBytes().record(0, 0).record(0, 0).bytes());
       }},
      {"Silent", ended("silent"),
       [](Test& test) {
         test.startStoring({"--idle-timeout", "1"});
         test.sendOpening();
       }},
      {"Corrupt", ended("corrupt"),
       [](Test& test) {
         test.startStoring();
         test.sendRaw(BatchBytes().record(0, 0).record(7, 2).bytes());
       }},
      {"DroppedRecord", "korvex_records_dropped_total{queue=\"QUEUE\"}",
       [](Test& test) {
         test.startStoring();
         test.sendRaw(BatchBytes().record(0, 0).record(7, 2).record(1, 3).bytes());
       }},
      {"NotStored", ended("not_stored"),
       [](Test& test) {
         test.startStoring();
         std::filesystem::rename(test.output_, test.output_ + ".away");
         test.sendStream();
       }},
      {"QueuesLost", ended("queues_lost"),
       [](Test& test) {
         test.startStoring();
         test.sendOpeningAndAwaitIt();
         ::shm_unlink(test.queue_.c_str());
       }},
      {"DaemonEnded", ended("daemon_ended"),
       [](Test& test) {
         test.startStoring();
         test.sendOpening();
         test.end();
       }},
      {"AbandonFailed", "korvex_abandon_failures_total{queue=\"QUEUE\"}",
       [](Test& test) {
         test.startStoring();
         test.sendOpeningAndAwaitIt();
         std::filesystem::remove_all(test.output_ + "/" + test.DaemonFixture::streams(true).at(0));
         test.sendRaw(BatchBytes().record(4, 3).bytes());
       }},
  };
}

std::vector<DaemonMetrics::Path> DaemonMetrics::batches() {
  using Test = DaemonMetrics;
  return {
      {"MetadataCut", refused("metadata_cut"),
       [](Test& test) { test.sendDamaged([](Bytes& bytes) { bytes.resize(3); }); }},
      {"MetadataMagic", refused("metadata_magic"),
       [](Test& test) { test.sendDamaged([](Bytes& bytes) { bytes[0] = 0; }); }},
      {"HeaderCut", refused("header_cut"),
       [](Test& test) { test.sendDamaged([](Bytes& bytes) { bytes.resize(20); }); }},
      {"HeaderMagic", refused("header_magic"),
       [](Test& test) { test.sendDamaged([](Bytes& bytes) { bytes[8 + 47] = 0; }); }},
      {"DataCut", refused("data_cut"),
       [](Test& test) { test.sendDamaged([](Bytes& bytes) { bytes.pop_back(); }); }},
      {"TrailingBytes", refused("trailing_bytes"),
       [](Test& test) { test.sendDamaged([](Bytes& bytes) { bytes.push_back(0); }); }},
      {"RecordWithoutStream", "korvex_records_refused_total{queue=\"QUEUE\"}",
       [](Test& test) {
         test.startStoring();
         test.sendRaw(BatchBytes().record(1, 2, "abc").bytes());
       }},
      {"RepliesNobodyTakes", "korvex_replies_lost_total{queue=\"QUEUE\"}",
       [](Test& test) {
         test.startStoring();
         for (int i = 0; i < 40; ++i) test.sendRaw(Bytes(3));
       }},
      {"RepliesTakenBack", "korvex_replies_withdrawn_total{queue=\"QUEUE\"}",
       [](Test& test) {
         test.startStoring();
         test.sendStream();
         test.sendStream();
       }},
      {"TooManyLines", "korvex_log_lines_lost_total{daemon=\"shop\",reason=\"too_many\"}",
       [](Test& test) {
         test.startStoring();
         for (int i = 0; i < 40; ++i) test.sendRaw(Bytes(3));
       }},
  };
}

std::vector<DaemonMetrics::Path> DaemonMetrics::engines() {
  using Test = DaemonMetrics;
  return {
      {"EngineExitCode", engineFailed("exit_code"),
       [](Test& test) {
         test.startEngine("cat >/dev/null; exit 7");
         test.sendStream();
       }},
      {"EngineKilled", engineFailed("killed"),
       [](Test& test) {
         test.startEngine("cat >/dev/null; kill -KILL $$");
         test.sendStream();
       }},
      {"EngineEarlyExit", engineFailed("early_exit"),
       [](Test& test) {
         test.startEngine("exit 0");
         test.sendOpening();
       }},
      {"EngineClosedInput", engineFailed("closed_input"),
       [](Test& test) {
         test.startEngine("exec <&-; sleep 600");
         test.fillQueue();
       }},
      {"EngineTookNothing", engineFailed("took_nothing"),
       [](Test& test) {
         test.startEngine("sleep 600", "1");
         test.fillQueue();
       }},
      {"EngineTimedOut", engineFailed("timed_out"),
       [](Test& test) {
         test.startEngine("cat >/dev/null; sleep 600", "1");
         test.sendStream();
       }},
      {"EngineNotStarted", engineFailed("not_started"),
       [](Test& test) {
         test.makeFile("engine", "#!/bin/sh\ncat >/dev/null\n", 0700);
         test.startWith({"--exec", test.output_ + "/engine"});
         std::filesystem::remove(test.output_ + "/engine");
         test.sendStream();
       }},
      {"EnginesKeeperKilled", engineFailed("keeper_lost"),
       [](Test& test) {
         test.startEngine("cat >/dev/null");
         test.sendOpeningAndAwaitIt();
         ::kill(test.keeper(), SIGKILL);
       }},
      {"DaemonEndedWhileEngineFinished", engineFailed("daemon_ended"),
       [](Test& test) {
         test.startEngine("cat >/dev/null; : >$0/read; sleep 600", "30");
         test.sendStream();
         EXPECT_TRUE(test.awaitFile("read"));
         test.end();
       }},
      {"QueueFullOfASlowEngine", kQueueFull,
       [](Test& test) {
         test.startEngine("sleep 600", "600");
         test.fillQueueUntil([&] { return test.metric(kQueueFull) > 0; });
       }},
  };
}

std::vector<DaemonMetrics::Path> DaemonMetrics::surroundings() {
  using Test = DaemonMetrics;
  return {
      {"PairReplaced", "korvex_queue_pairs_replaced_total{queue=\"QUEUE\"}",
       [](Test& test) {
         test.startStoring();
         ::shm_unlink(test.queue_.c_str());
       }},
      {"PairNotReplaced", "korvex_queue_pair_failures_total{queue=\"QUEUE\"}",
       [](Test& test) {
         test.startStoring();
         const std::string other = test.sharedObject() + ".other";
         std::ofstream(other) << "taken";
         std::filesystem::rename(other, test.sharedObject());
       }},
      {"MessagesUntaken", "korvex_messages_untaken_total{queue=\"QUEUE\"}",
       [](Test& test) {
         test.startStoring();
         test.daemon_->freeze();
         test.sendRaw(BatchBytes().record(0, 0).bytes());
         const korvex::test::LockHolder holder(test.queue_);
         test.daemon_->signal(SIGTERM);
         test.daemon_->signal(SIGCONT);
         EXPECT_EQ(test.daemon_->wait(), 0);
       }},
      {"CaptureFailed", "korvex_capture_failures_total{queue=\"QUEUE\"}",
       [](Test& test) {
         const std::string captured = test.folder_.makeFolder("captured");
         test.startStoring({"--capture", captured});
         std::filesystem::remove_all(captured);
         test.sendStream();
       }},
      {"StatisticsNotWritten", "korvex_file_write_failures_total{daemon=\"shop\",file=\"stats\"}",
       [](Test& test) {
         const std::string stats = test.folder_.makeFolder("stats");
         test.startStoring({"--stats", stats + "/stats.json"});
         std::filesystem::remove_all(stats);
         test.sendStream();
       }},
      {"MetricsNotWritten", "korvex_file_write_failures_total{daemon=\"shop\",file=\"metrics\"}",
       [](Test& test) {
         test.startStoring();
         const std::string metrics = test.folder_ / "metrics";
         std::filesystem::rename(metrics, metrics + ".away");
         test.sendStream();
         EXPECT_TRUE(test.awaitLog(*test.daemon_, "writing metrics to "));
         std::filesystem::rename(metrics + ".away", metrics);
       }},
      {"LogNotWritten", "korvex_log_lines_lost_total{daemon=\"shop\",reason=\"unwritten\"}",
       [](Test& test) {
         test.daemon_ = std::make_unique<Process>(std::vector<std::string>{
             "/bin/sh", "-c", "exec \"$@\" 2>/dev/full", "sh", KORVEXD_PROGRAM, "--queue",
             test.queue_, "--discard", "--metrics", test.metricsFile_});
         EXPECT_TRUE(eventually([&] { return korvex::test::queueExists(test.queue_); }));
         test.sendStream();
       }},
      {"LogNotRead", "korvex_log_lines_lost_total{daemon=\"shop\",reason=\"unread\"}",
       [](Test& test) {
         test.startConfigured();
         std::string mistakes;
         for (int i = 0; i < 12000; ++i) mistakes += "wrong" + std::to_string(i) + " = 1\n";
         test.reloadWith(mistakes);  // more lines than are kept and fit into the pipe of the log
       }},
      {"ManagerUnreachable", "korvex_service_manager_failures_total{daemon=\"shop\"}",
       [](Test& test) {
         const std::string nobody = test.folder_ / "nobody";
         test.startWith({"--discard"}, {"/usr/bin/env", "NOTIFY_SOCKET=" + nobody});
       }},
  };
}

std::vector<DaemonMetrics::Path> DaemonMetrics::reloads() {
  using Test = DaemonMetrics;
  return {
      {"ReloadRefused", "korvex_config_reload_failures_total{daemon=\"shop\"}",
       [](Test& test) {
         test.startConfigured();
         test.reloadWith("mode = 1\n");
         EXPECT_TRUE(test.awaitLog(*test.daemon_, "the configuration was not changed"));
         test.reloadWith("");
         EXPECT_TRUE(test.awaitLog(*test.daemon_, "configuration reloaded"));
       }},
      {"ReloadDuringShutdown", "korvex_config_reload_failures_total{daemon=\"shop\"}",
       [](Test& test) {
         test.startConfigured();
         test.sendOpeningAndAwaitIt();
         test.daemon_->signal(SIGTERM);
         EXPECT_TRUE(test.awaitLog(*test.daemon_, "shutting down; "));
         test.reloadWith("");
       }},
      {"AddedQueueNotCreated", "korvex_queue_creation_failures_total{daemon=\"shop\"}",
       [](Test& test) {
         test.startConfigured();
         test.reloadWith("[queue." + test.queue_ + "-large]\n" + kMoreThanThereIs);
       }},
      {"SettingsNotChanged", "korvex_settings_failures_total{queue=\"QUEUE\"}",
       [](Test& test) {
         test.startConfigured();
         test.reloadWith(kMoreThanThereIs);
         EXPECT_TRUE(test.awaitLog(*test.daemon_, test.queue_ + ": served again"));
       }},
  };
}

std::vector<DaemonMetrics::Path> DaemonMetrics::hangs() {
  using Test = DaemonMetrics;
  return {
      {"QueueStuck", "korvex_watchdog_withheld_total{daemon=\"shop\"}",
       [](Test& test) {
         test.startHanging();
         test.sendOpening();
       }},
      {"ShutdownHangs", "korvex_shutdown_hangs_total{daemon=\"shop\"}",
       [](Test& test) {
         test.startHanging();
         test.sendOpening();
         test.daemon_->signal(SIGTERM);
         EXPECT_TRUE(test.awaitLog(*test.daemon_, "the sink has not returned for "));
         EXPECT_TRUE(test.calls_.stop());
         EXPECT_EQ(test.daemon_->wait(), 0);
       }},
  };
}

class FailingPath : public DaemonMetrics,
                    public testing::WithParamInterface<DaemonMetrics::Path> {};

constexpr double kBelowZero = 1e18;  ///< what a counter that is counted down is above

const auto kName = [](const auto& info) { return std::string(info.param.name); };

INSTANTIATE_TEST_SUITE_P(OfStreams, FailingPath, testing::ValuesIn(DaemonMetrics::streams()),
                         kName);
INSTANTIATE_TEST_SUITE_P(OfBatches, FailingPath, testing::ValuesIn(DaemonMetrics::batches()),
                         kName);
INSTANTIATE_TEST_SUITE_P(OfEngines, FailingPath, testing::ValuesIn(DaemonMetrics::engines()),
                         kName);
INSTANTIATE_TEST_SUITE_P(OfSurroundings, FailingPath,
                         testing::ValuesIn(DaemonMetrics::surroundings()), kName);
INSTANTIATE_TEST_SUITE_P(OfReloads, FailingPath, testing::ValuesIn(DaemonMetrics::reloads()),
                         kName);
#ifdef KORVEX_FAILING_CALLS
INSTANTIATE_TEST_SUITE_P(OfHangs, FailingPath, testing::ValuesIn(DaemonMetrics::hangs()), kName);
#endif

}  // namespace

TEST_P(FailingPath, ShowsInTheMetrics) {
  GetParam().provoke(*this);
  EXPECT_TRUE(eventually([this] { return metric(GetParam().sample) > 0; })) << daemon_->errors();
  EXPECT_LT(metric(GetParam().sample), kBelowZero);
}

TEST_F(DaemonMetrics, KeepTheLastSuccessAcrossARestart) {
  startStoring();
  stream("abc");
  const char* const sample = "korvex_last_success_timestamp_seconds{queue=\"QUEUE\"}";
  ASSERT_TRUE(eventually([&] { return metric(sample) > 0; }));
  const double before = metric(sample);
  end();
  startStoring();
  EXPECT_EQ(metric(sample), before);
  EXPECT_EQ(metric(ended("complete")), 0);
}

TEST_F(DaemonMetrics, NeedAWritableFileAtTheStart) {
  Process daemon({KORVEXD_PROGRAM, "--queue", queue_, "--discard", "--metrics", "/dev/null"});
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_THAT(daemon.errors(),
              testing::HasSubstr("writing metrics to /dev/null: found something else, expected a "
                                 "file"));
  EXPECT_FALSE(korvex::test::queueExists(queue_));
}
