#include "korvexd/Daemon.h"

#include <signal.h>
#include <spdlog/spdlog.h>
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

sigset_t endSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGHUP);  // its terminal is gone; queues must not be left behind
  return signals;
}

/// Before any thread starts, so that all of them inherit it and the signals reach awaitSignal().
void prepareSignals() {
  const sigset_t signals = endSignals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is an error of that write, like others
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

Daemon::Daemon(const Options& options) {
  prepareSignals();
  installCutGuard();
  if (options.output) store_.emplace(*options.output);
  if (!options.engine.empty()) {
    engines_.emplace(ExecStore::Settings{options.engine, options.engineTimeout,
                                         [this] { return stop_.load(); }});
  }
  createServers(options);
  if (options.statsFile) createStatsFile(*options.statsFile);
  // Only now: who reads this line may rely on everything else.
  for (const auto& server : servers_) {
    spdlog::info("serving {}, {} messages of {} bytes", server->queue(), options.limits.messages,
                 options.limits.messageSize);
  }
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
    awaitSignal();
  }
  updateStats();
  servers_.clear();
}

/// A second signal stays blocked and changes nothing.
void Daemon::awaitSignal() {
  const sigset_t signals = endSignals();
  while (::sigtimedwait(&signals, nullptr, &kStatsInterval) < 0) doRegularly();
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
