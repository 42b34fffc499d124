#include "korvexd/Daemon.h"

#include <korvex/receiver/BusErrorGuard.h>
#include <korvex/receiver/Leftovers.h>
#include <signal.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>

#include <chrono>
#include <stdexcept>
#include <utility>

namespace korvexd {
namespace {

constexpr timespec kStatsInterval{1, 0};
constexpr timespec kDrainInterval{0, 50'000'000};
constexpr unsigned kDrainIntervalsPerUpdate = 20;

/// Readable by the daemon's user alone, unless a mode is asked for. A mask from outside could keep
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
  // Without a configuration to read again it ends the daemon: queues must not outlive the terminal.
  if (hasConfiguration || !isIgnored(SIGHUP)) sigaddset(&signals, SIGHUP);
  return signals;
}

/// Before any thread starts, so that all of them inherit it and the signals reach awaitEnd().
void prepareProcess(const sigset_t& awaited) {
  ::umask(kModeMask);
  ::pthread_sigmask(SIG_BLOCK, &awaited, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is an error of that write, like others
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
  spdlog::info("queues: {}, which take {} MiB of /dev/shm", queues.size(),
               (bytes + kMiB - 1) / kMiB);
}

}  // namespace

Daemon::Daemon(CommandLine commandLine, const Settings& settings)
    : commandLine_(std::move(commandLine)),
      signals_(awaitedSignals(commandLine_.configFile.has_value())),
      settings_(settings.daemon) {
  prepareProcess(signals_);
  raiseDescriptorLimit();
  receiver::installBusErrorGuard();
  for (const std::string& name : receiver::removeHalfMadeQueues()) {
    spdlog::info("removed {}, half made by a daemon that was killed", name);
  }
  announceMemory(settings.queues);
  for (const QueueSettings& queue : settings.queues) queues_.add(queue);
  reportTo(settings_.statsFile);
  if (statsFile_) statsFile_->update();
}

void Daemon::run() {
  queues_.start();
  awaitEnd();
  if (settings_.drainTimeout.count() > 0) drain();
  queues_.stop();
  updateStats();
  queues_.clear();
}

/// A second signal stays blocked and changes nothing, unless it comes while streams are drained.
void Daemon::awaitEnd() {
  for (;;) {
    const int signal = ::sigtimedwait(&signals_, nullptr, &kStatsInterval);
    const bool asksForConfiguration = signal == SIGHUP && commandLine_.configFile;
    if (signal > 0 && !asksForConfiguration) return;
    if (asksForConfiguration) readAgain();
    doRegularly();
  }
}

/// Streams that are open may end in peace, and none begins.
void Daemon::drain() {
  const auto deadline = std::chrono::steady_clock::now() + settings_.drainTimeout;
  queues_.retire();
  spdlog::info("ending, open streams have {} seconds to finish", settings_.drainTimeout.count());
  for (unsigned count = 1; !queues_.haveAllRetired(); ++count) {
    const int signal = ::sigtimedwait(&signals_, nullptr, &kDrainInterval);
    const bool isAnotherEnd = signal > 0 && signal != SIGHUP;
    if (isAnotherEnd || std::chrono::steady_clock::now() >= deadline) return;
    if (count % kDrainIntervalsPerUpdate == 0) updateStats();
  }
}

void Daemon::readAgain() noexcept {
  try {
    const Configuration configuration = readConfiguration(commandLine_);
    for (const Mistake& mistake : configuration.mistakes()) {
      spdlog::error("{}", configuration.textOf(mistake));
    }
    if (!configuration.mistakes().empty()) throw std::runtime_error("it holds mistakes");
    take(configuration.settings());
    spdlog::info("configuration read again");
  } catch (const std::exception& error) {
    spdlog::error("nothing of the configuration is changed: {}", error.what());
  }
}

/// The queues first: they change all together or not at all.
void Daemon::take(const Settings& settings) {
  queues_.follow(settings.queues);
  settings_ = settings.daemon;
  reportTo(settings_.statsFile);
}

void Daemon::reportTo(const std::optional<std::string>& path) {
  statsFile_.reset();
  if (path) statsFile_.emplace(*path, queues_.stats());
}

void Daemon::doRegularly() noexcept {
  if (queues_.settle()) reportTo(settings_.statsFile);
  updateStats();
}

void Daemon::updateStats() noexcept {
  if (!statsFile_) return;
  try {
    statsFile_->update();
    statsFailed_ = false;
  } catch (const std::exception& error) {
    // Said once until it works again.
    if (!std::exchange(statsFailed_, true)) spdlog::warn("{}", error.what());
  }
}

}  // namespace korvexd
