#include "korvexd/Daemon.h"

#include <signal.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <utility>

#include "korvexd/CutGuard.h"
#include "korvexd/DiscardSink.h"
#include "korvexd/StartThread.h"
#include "korvexd/TemporaryName.h"

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

  void start(QueueServer& server) {
    threads_.push_back(
        startThread("queue " + server.queue(), [this, &server] { server.run(stop_); }));
  }

 private:
  std::atomic<bool>& stop_;
  std::vector<std::thread> threads_;
};

}  // namespace

Daemon::Daemon(const Options& options) : endSignals_(endSignals()), limits_(options.limits) {
  prepareProcess(endSignals_);
  raiseDescriptorLimit();
  installCutGuard();
  if (options.output) store_.emplace(*options.output);
  if (!options.engine.empty()) {
    engines_.emplace(ExecStore::Settings{options.engine, options.engineTimeout,
                                         [this] { return stop_.load(); }});
  }
  createServers(options);
  if (options.statsFile) createStatsFile(*options.statsFile);
}

void Daemon::createStatsFile(const std::string& path) {
  std::vector<std::pair<std::string, const Stats*>> stats;
  for (const auto& server : servers_) stats.emplace_back(server->queue(), &server->stats());
  statsFile_.emplace(path, std::move(stats));
  statsFile_->update();
}

SinkFactory Daemon::sinkFactory() {
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

void Daemon::createServers(const Options& options) {
  for (const std::string& name : removeHalfMadeQueues()) {
    spdlog::info("removed {}, half made by a daemon that was killed", name);
  }
  for (const std::string& queue : options.queues) {
    servers_.push_back(std::make_unique<QueueServer>(
        QueueServer::Settings{queue, options.limits, options.mode, options.existing, sinkFactory(),
                              options.capture, options.idleTimeout}));
  }
}

void Daemon::run() {
  {
    ServerThreads threads(stop_);
    for (const auto& server : servers_) threads.start(*server);
    announceServing();
    awaitSignal();
  }
  updateStats();
  servers_.clear();
}

/// Only when everything else is done: the reader of these lines relies on it.
void Daemon::announceServing() const {
  for (const auto& server : servers_) {
    spdlog::info("serving {}, {} messages of {} bytes", server->queue(), limits_.messages,
                 limits_.messageSize);
  }
}

/// A second signal stays blocked and changes nothing.
void Daemon::awaitSignal() {
  while (::sigtimedwait(&endSignals_, nullptr, &kStatsInterval) < 0) doRegularly();
}

void Daemon::doRegularly() noexcept {
  if (engines_) engines_->tidyUp();
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
