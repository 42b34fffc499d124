#include "korvexd/Daemon.h"

#include <chrono>
#include <korvex/receiver/BusErrorGuard.h>
#include <korvex/receiver/Leftovers.h>
#include <new>
#include <signal.h>
#include <spdlog/spdlog.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <utility>

#include "common/ExitCode.h"
#include "korvexd/log/LogEntry.h"

namespace korvexd {
namespace {

constexpr timespec kStatsInterval{1, 0};
constexpr timespec kDrainInterval{0, 50'000'000};
constexpr unsigned kDrainIntervalsPerUpdate = 20;
constexpr timespec kEndInterval{0, 10'000'000};

/// Longer than a queue takes for its last messages or its engine.
constexpr std::chrono::seconds kPatienceWithSinks{7};

/// Readable only by the daemon's user, unless a mode is requested. An inherited umask could lock
/// the daemon out of its own folders.
constexpr mode_t kModeMask = 077;

bool isIgnored(int signal) {
  struct sigaction action = {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

/// A shell ignores SIGINT for jobs in the background, nohup ignores SIGHUP. Blocked, they would
/// come all the same.
sigset_t awaitedSignals(bool hasConfiguration) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  if (!isIgnored(SIGINT)) sigaddset(&signals, SIGINT);
  // Without a configuration to reload it ends the daemon: queues must not outlive the terminal.
  if (hasConfiguration || !isIgnored(SIGHUP)) sigaddset(&signals, SIGHUP);
  sigaddset(&signals, kReportSignal);
  return signals;
}

/// Before the queues' threads start: they inherit the signal mask, so the signals reach awaitEnd().
/// The threads of the log and of the idle watch run already; they block these signals themselves.
void prepareProcess(const sigset_t& awaited) {
  ::umask(kModeMask);
  ::pthread_sigmask(SIG_BLOCK, &awaited, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);  // hitting the file size limit then fails the write with EFBIG
}

/// Each queue has several descriptors, and the usual soft limit is for programs that use select().
void raiseDescriptorLimit() {
  rlimit limit = {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// Logged before the queues are made: if there is no room for all, the log says what they need.
void announceMemory(const std::vector<QueueSettings>& queues) {
  constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;
  std::uint64_t bytes = 0;
  for (const QueueSettings& queue : queues)
    bytes += receiver::sharedMemoryFor(queue.receiver.limits);
  const std::uint64_t mebibytes = (bytes + kMiB - 1) / kMiB;
  writeLog(LogEntry(Event::Memory, spdlog::level::info, "",
                    "queues: " + std::to_string(queues.size()) + ", needing " +
                        std::to_string(mebibytes) + " MiB of /dev/shm")
               .with("queues", std::uint64_t{queues.size()})
               .with("mebibytes", mebibytes));
}

}  // namespace

void expectReportSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, kReportSignal);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

Daemon::Daemon(CommandLine commandLine, const Settings& settings, ServiceManager& manager)
    : commandLine_(std::move(commandLine)),
      signals_(awaitedSignals(commandLine_.configFile.has_value())),
      settings_(settings.daemon),
      supervision_(manager) {
  prepareProcess(signals_);
  raiseDescriptorLimit();
  receiver::installBusErrorGuard();
  for (const std::string& name : receiver::removeHalfMadeQueues()) {
    writeLog(LogEntry(Event::HalfMadeRemoved, spdlog::level::info, "",
                      "removed " + name + ", left half-made by a daemon that was killed")
                 .with("object", name));
  }
  announceMemory(settings.queues);
  for (const QueueSettings& queue : settings.queues) queues_.add(queue);
  keepFiles();
  supervision_.requireMetrics(queues_.stats(), state());
  if (statsFile_) statsFile_->update();
}

void Daemon::run() {
  queues_.start();
  supervision_.ready(queues_.stats());
  awaitEnd();
  supervision_.stopping();
  if (settings_.drainTimeout.count() > 0) drain();
  endQueues();
  updateStats();
  supervision_.over(queues_.stats(), state());
  queues_.removeEnded();
}

void Daemon::awaitEnd() {
  for (;;) {
    const int signal = ::sigtimedwait(&signals_, nullptr, &kStatsInterval);
    if (isEnd(signal)) return;
    if (signal == kReportSignal) queues_.logStates();
    if (signal == SIGHUP) readAgain();
    doRegularly();
  }
}

bool Daemon::isEnd(int signal) const noexcept {
  return signal == SIGTERM || signal == SIGINT || (signal == SIGHUP && !commandLine_.configFile);
}

/// Open streams may finish; new ones are refused.
void Daemon::drain() {
  const auto deadline = std::chrono::steady_clock::now() + settings_.drainTimeout;
  queues_.retire();
  writeLog({Event::Draining, spdlog::level::info, "",
            "shutting down; open streams have " + std::to_string(settings_.drainTimeout.count()) +
                " seconds to finish"});
  for (unsigned count = 1; !queues_.haveAllRetired(); ++count) {
    const int signal = ::sigtimedwait(&signals_, nullptr, &kDrainInterval);
    answerAtTheEnd(signal);
    if (isEnd(signal) || std::chrono::steady_clock::now() >= deadline) return;
    if (count % kDrainIntervalsPerUpdate == 0) updateReports();
  }
}

void Daemon::answerAtTheEnd(int signal) {
  if (signal == kReportSignal) queues_.logStates();
  if (signal != SIGHUP || isEnd(SIGHUP)) return;
  ++reloadFailures_;
  writeLog({Event::ConfigurationRefused, spdlog::level::err, "",
            "the configuration was not changed: the daemon is shutting down"});
}

/// Signals that repeat the first one change nothing, until it shows that a sink hangs: on a disk
/// that does not come back, for example.
void Daemon::endQueues() {
  const auto patienceEnds = std::chrono::steady_clock::now() + kPatienceWithSinks;
  bool hangs = false;
  queues_.stop();
  while (const ServedQueue* const queue = queues_.stillServing()) {
    const int signal = ::sigtimedwait(&signals_, nullptr, &kEndInterval);
    answerAtTheEnd(signal);
    if (hangs && isEnd(signal)) endAtOnce(signal);
    if (hangs || std::chrono::steady_clock::now() < patienceEnds) continue;
    hangs = true;
    ++hangingEnds_;  // for the last metrics: writing them now might hang, too
    writeLog({Event::EndHangs, spdlog::level::err, queue->name(),
              "the sink has not returned for " + std::to_string(kPatienceWithSinks.count()) +
                  " seconds; another signal ends the daemon at once"});
  }
}

/// As if it were killed, but for the queues that have ended. The others may still log, so the
/// logger stays.
void Daemon::endAtOnce(int signal) {
  queues_.removeEnded();
  spdlog::default_logger_raw()->flush();
  ::_exit(korvex::common::codeAfterSignal(signal));
}

void Daemon::readAgain() noexcept {
  try {
    supervision_.reloading();
    Configuration configuration = readConfiguration(commandLine_);
    configuration.checkSystem([this](const auto& queue) { return queues_.serves(queue); });
    for (const Mistake& mistake : configuration.mistakes()) {
      writeLog(
          {Event::ConfigurationMistake, spdlog::level::err, "", configuration.textOf(mistake)});
    }
    if (!configuration.mistakes().empty()) throw std::runtime_error("it has mistakes");
    take(configuration.settings());
    tryToLog([] {
      return LogEntry(Event::ConfigurationRead, spdlog::level::info, "", "configuration reloaded");
    });
  } catch (const std::exception& error) {
    isReloadRefused_ = true;
    ++reloadFailures_;
    tryToLog([&] {
      return LogEntry(Event::ConfigurationRefused, spdlog::level::err, "",
                      std::string("the configuration was not changed: ") + error.what());
    });
  }
  hasNews_ = true;
}

/// The queues first: they change all together or not at all.
void Daemon::take(Settings settings) {
  queues_.follow(settings.queues);
  settings_ = std::move(settings.daemon);
  configured_ = std::time(nullptr);
  isReloadRefused_ = false;
}

void Daemon::keepFiles() {
  statsFile_.reset();
  if (settings_.statsFile) statsFile_.emplace(*settings_.statsFile, queues_.stats());
  supervision_.keepMetrics(settings_.metricsFile, [this](const std::string& queue) {
    return queues_.engineFailuresOf(queue);
  });
}

/// The reports come first, for the last word of queues that go now.
void Daemon::doRegularly() noexcept {
  updateReports();
  hasNews_ = queues_.settle() || hasNews_;
  if (!hasNews_) return;
  statsFile_.reset();  // it looks at queues that may be gone
  try {
    followQueues();
    hasNews_ = false;
  } catch (const std::exception&) {
    // Memory is short; tried again in a second.
  }
  updateReports();
}

void Daemon::followQueues() {
  supervision_.ready(queues_.stats());
  keepFiles();
}

void Daemon::updateReports() noexcept {
  updateStats();
  try {
    supervision_.update(queues_.stats(), state());
  } catch (const std::bad_alloc&) {
    // Retried in a second.
  }
}

DaemonState Daemon::state() const {
  DaemonFailures failures;
  failures.stats = statsWrites_.failures();
  failures.reloads = reloadFailures_;
  failures.newQueues = queues_.creationFailures();
  failures.ends = hangingEnds_;
  return {failures, configured_, isReloadRefused_, queues_.awaited()};
}

void Daemon::updateStats() noexcept {
  if (statsFile_) statsWrites_.attempt([this] { statsFile_->update(); });
}

}  // namespace korvexd
