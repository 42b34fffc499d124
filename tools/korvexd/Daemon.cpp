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

#include "korvexd/os/Thread.h"
#include "korvexd/sink/DiscardSink.h"

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

/// One thread for each server. They have ended when it goes.
class ServerThreads {
 public:
  explicit ServerThreads(std::atomic<bool>& stop) : stop_(stop) {}
  ~ServerThreads() {
    stop_ = true;
    for (std::thread& thread : threads_) thread.join();
  }
  ServerThreads(const ServerThreads&) = delete;
  ServerThreads& operator=(const ServerThreads&) = delete;

  void start(receiver::Receiver& server) {
    threads_.push_back(
        startThread("queue " + server.queue(), [this, &server] { server.run(stop_); }));
  }

 private:
  std::atomic<bool>& stop_;
  std::vector<std::thread> threads_;
};

}  // namespace

void expectReportSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, kReportSignal);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

Daemon::Daemon(const Options& options) : endSignals_(endSignals()), limits_(options.queue.limits) {
  prepareProcess(endSignals_);
  raiseDescriptorLimit();
  receiver::installBusErrorGuard();
  if (options.output) store_.emplace(*options.output);
  if (!options.engine.empty()) {
    engines_.emplace(ExecStore::Settings{options.engine, options.engineTimeout,
                                         [this] { return stop_.load(); }});
  }
  serveQueues(options);
  if (options.statsFile) createStatsFile(*options.statsFile);
}

void Daemon::createStatsFile(const std::string& path) {
  std::vector<QueueStats> stats;
  for (const auto& served : queues_) {
    stats.push_back({served->receiver.queue(), &served->receiver.counters(), &served->log});
  }
  statsFile_.emplace(path, std::move(stats));
  statsFile_->update();
}

receiver::SinkFactory Daemon::sinkFactory() {
  if (engines_) {
    return [this](const std::string& queue, std::time_t opened) {
      return engines_->open(queue, opened);
    };
  }
  if (!store_) {
    return [](const std::string&, std::time_t) { return std::make_unique<DiscardSink>(); };
  }
  return
      [this](const std::string& queue, std::time_t opened) { return store_->open(queue, opened); };
}

Daemon::Served::Served(const receiver::Receiver::Settings& settings, receiver::SinkFactory openSink,
                       const std::optional<std::string>& captureFolder)
    : log(settings.queue, captureFolder), receiver(settings, std::move(openSink), log) {}

void Daemon::serveQueues(const Options& options) {
  for (const std::string& name : receiver::removeHalfMadeQueues()) {
    spdlog::info("removed {}, half made by a daemon that was killed", name);
  }
  receiver::Receiver::Settings settings = options.queue;
  for (const std::string& queue : options.queues) {
    settings.queue = queue;
    queues_.push_back(std::make_unique<Served>(settings, sinkFactory(), options.capture));
  }
}

void Daemon::run() {
  {
    ServerThreads threads(stop_);
    for (const auto& served : queues_) threads.start(served->receiver);
    announceServing();
    awaitSignal();
  }
  updateStats();
  queues_.clear();
}

/// Only when everything else is done: the reader of these lines relies on it.
void Daemon::announceServing() const {
  for (const auto& served : queues_) {
    spdlog::info("serving {}, {} messages of {} bytes", served->receiver.queue(), limits_.messages,
                 limits_.messageSize);
  }
}

/// A second signal that ends it stays blocked and changes nothing.
void Daemon::awaitSignal() {
  sigset_t signals = endSignals_;
  sigaddset(&signals, kReportSignal);
  for (;;) {
    const int signal = ::sigtimedwait(&signals, nullptr, &kStatsInterval);
    if (signal == kReportSignal) logStreams();
    if (signal > 0 && signal != kReportSignal) return;
    doRegularly();
  }
}

void Daemon::logStreams() const {
  for (const auto& served : queues_) served->log.logState(served->receiver.counters());
}

void Daemon::doRegularly() noexcept {
  if (engines_) engines_->tidyUp();
  for (const auto& served : queues_) served->log.update();
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
