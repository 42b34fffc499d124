#include "korvexd/Daemon.h"

#include <korvex/receiver/BusErrorGuard.h>
#include <korvex/receiver/Leftovers.h>
#include <signal.h>
#include <spdlog/spdlog.h>
#include <time.h>

#include <cerrno>
#include <utility>

#include "korvexd/sink/DiscardSink.h"
#include "korvexd/os/Thread.h"

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

  void start(receiver::Receiver& server) {
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
  receiver::installBusErrorGuard();
  if (options.output) store_.emplace(*options.output);
  serveQueues(options);
  if (options.statsFile) createStatsFile(*options.statsFile);
  // Only now: the reader of this line relies on everything else.
  for (const auto& served : queues_) {
    spdlog::info("serving {}, {} messages of {} bytes", served->receiver.queue(),
                 options.queue.limits.messages, options.queue.limits.messageSize);
  }
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
    awaitSignal();
  }
  updateStats();
  queues_.clear();
}

/// A second signal stays blocked and changes nothing.
void Daemon::awaitSignal() {
  const sigset_t signals = endSignals();
  while (::sigtimedwait(&signals, nullptr, &kStatsInterval) < 0) updateStats();
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
