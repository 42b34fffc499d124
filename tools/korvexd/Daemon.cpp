#include "korvexd/Daemon.h"

#include <korvex/receiver/BusErrorGuard.h>
#include <korvex/receiver/Leftovers.h>
#include <signal.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <utility>

namespace korvexd {
namespace {

constexpr timespec kStatsInterval{1, 0};

/// Readable by the daemon's user alone, unless a mode is asked for. A mask from outside could keep
/// the daemon out of its own folders.
constexpr mode_t kModeMask = 077;

bool isIgnored(int signal) {
  struct sigaction action = {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

/// A shell ignores SIGINT for jobs in the background, nohup ignores SIGHUP. Blocked, they would
/// come all the same.
sigset_t endSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  if (!isIgnored(SIGINT)) sigaddset(&signals, SIGINT);
  if (!isIgnored(SIGHUP)) sigaddset(&signals, SIGHUP);  // queues must not outlive the terminal
  return signals;
}

/// Before any thread starts, so that all of them inherit it and the signals reach awaitSignal().
void prepareProcess(const sigset_t& endSignals) {
  ::umask(kModeMask);
  ::pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
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

}  // namespace

Daemon::Daemon(const Options& options)
    : endSignals_(endSignals()), sinks_([this] { return stop_.load(); }) {
  prepareProcess(endSignals_);
  raiseDescriptorLimit();
  receiver::installBusErrorGuard();
  serveQueues(options);
  if (options.statsFile) createStatsFile(*options.statsFile);
}

/// The threads of the queues end before the queues go.
Daemon::~Daemon() { stop_ = true; }

void Daemon::createStatsFile(const std::string& path) {
  std::vector<QueueStats> stats;
  for (const auto& queue : queues_) {
    stats.push_back({queue->name(), &queue->counters(), &queue->log()});
  }
  statsFile_.emplace(path, std::move(stats));
  statsFile_->update();
}

void Daemon::serveQueues(const Options& options) {
  for (const std::string& name : receiver::removeHalfMadeQueues()) {
    spdlog::info("removed {}, half made by a daemon that was killed", name);
  }
  for (const QueueSettings& queue : options.queues) {
    queues_.push_back(std::make_unique<ServedQueue>(queue, sinks_.factoryFor(queue)));
  }
}

void Daemon::run() {
  for (const auto& queue : queues_) queue->start(stop_);
  announceServing();
  awaitSignal();
  stop_ = true;
  for (const auto& queue : queues_) queue->join();
  updateStats();
  queues_.clear();
}

/// Only when everything else is done: the reader of these lines relies on it.
void Daemon::announceServing() const {
  for (const auto& queue : queues_) {
    const receiver::Limits& limits = queue->settings().receiver.limits;
    spdlog::info("serving {}, {} messages of {} bytes", queue->name(), limits.messages,
                 limits.messageSize);
  }
}

/// A second signal stays blocked and changes nothing.
void Daemon::awaitSignal() {
  while (::sigtimedwait(&endSignals_, nullptr, &kStatsInterval) < 0) doRegularly();
}

void Daemon::doRegularly() noexcept {
  sinks_.tidyUp();
  for (const auto& queue : queues_) queue->log().update();
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
