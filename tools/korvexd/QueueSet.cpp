#include "korvexd/QueueSet.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <optional>
#include <utility>

#include "korvexd/log/LogEntry.h"
#include "korvexd/os/Heartbeat.h"

namespace korvexd {
namespace {

/// Only when the queue is served: the reader of these lines relies on it.
void announce(const ServedQueue& queue) {
  const receiver::Limits& limits = queue.settings().receiver.limits;
  writeLog(LogEntry(Event::Serving, spdlog::level::info, "",
                    "serving " + queue.name() + ", " + std::to_string(limits.messages) +
                        " messages of " + std::to_string(limits.messageSize) + " bytes")
               .with("queue", queue.name())
               .with("messages", std::uint64_t{limits.messages})
               .with("message_size", std::uint64_t{limits.messageSize}));
}

std::shared_ptr<Capture> captureFor(const QueueSettings& settings) {
  if (!settings.capture) return nullptr;
  return std::make_shared<Capture>(*settings.capture, settings.receiver.queue);
}

}  // namespace

/// A new or changed queue, with everything that could fail already prepared.
struct QueueSet::Change {
  QueueSettings settings;
  receiver::SinkFactory openSink;
  std::shared_ptr<Capture> capture;
};

/// An engine that is waited for asks whether it is to go on, which shows that its loop moves.
QueueSet::QueueSet()
    : sinks_([this] {
        Heartbeat::beatOfThisThread();
        return isEnding_.load();
      }) {}

/// All are asked to stop before any is waited for.
QueueSet::~QueueSet() { stop(); }

void QueueSet::add(const QueueSettings& settings) { queues_.push_back(make(settings)); }

std::unique_ptr<ServedQueue> QueueSet::make(const QueueSettings& settings) {
  QueueSettings watched = settings;
  watched.receiver.idleWatch = &idleWatch_;
  return std::make_unique<ServedQueue>(watched, sinks_.factoryFor(settings));
}

void QueueSet::start() {
  for (const auto& queue : queues_) queue->start();
  for (const auto& queue : queues_) announce(*queue);
}

void QueueSet::follow(const std::vector<QueueSettings>& wanted) {
  std::vector<Change> changes = changesTo(wanted);
  std::vector<Awaited> awaited;
  awaited.reserve(changes.size());
  retireOthersThan(wanted);
  for (Change& change : changes) {
    ServedQueue* const queue = find(change.settings.receiver.queue);
    if (queue != nullptr && !queue->isRetiring()) {
      tryToLog([&] {
        return LogEntry(Event::SettingsAccepted, spdlog::level::info, queue->name(),
                        "changed settings take effect with the next stream");
      });
      queue->change(change.settings, std::move(change.openSink), std::move(change.capture));
    } else {
      Awaited fresh{std::move(change.settings)};
      if (!tryToStart(fresh)) awaited.push_back(std::move(fresh));
    }
  }
  awaited_.swap(awaited);
}

std::vector<QueueSet::Change> QueueSet::changesTo(const std::vector<QueueSettings>& wanted) {
  std::vector<Change> changes;
  for (const QueueSettings& settings : wanted) {
    if (serves(settings)) continue;
    changes.push_back({settings, sinks_.factoryFor(settings), captureFor(settings)});
  }
  return changes;
}

void QueueSet::retireOthersThan(const std::vector<QueueSettings>& wanted) noexcept {
  for (const auto& queue : queues_) {
    const bool isWanted = std::any_of(
        wanted.begin(), wanted.end(),
        [&](const QueueSettings& settings) { return settings.receiver.queue == queue->name(); });
    if (!isWanted) queue->retire();
  }
}

bool QueueSet::serves(const QueueSettings& settings) const {
  const ServedQueue* const queue = find(settings.receiver.queue);
  return queue != nullptr && queue->serves(settings);
}

ServedQueue* QueueSet::find(const std::string& name) const noexcept {
  for (const auto& queue : queues_)
    if (queue->name() == name) return queue.get();
  return nullptr;
}

/// Does not log repeated failures. A queue of that name may still have its last stream.
bool QueueSet::tryToStart(Awaited& queue) noexcept {
  const std::string& name = queue.settings.receiver.queue;
  if (find(name) != nullptr) return false;
  try {
    startNew(queue.settings);
    return true;
  } catch (const std::exception& error) {
    if (std::exchange(queue.isReported, true)) return false;
    ++creationFailures_;
    tryToLog([&] {
      return LogEntry(Event::NotServed, spdlog::level::err, name,
                      std::string("not served yet: ") + error.what());
    });
    return false;
  }
}

void QueueSet::startNew(const QueueSettings& settings) {
  auto queue = make(settings);
  queues_.reserve(queues_.size() + 1);
  queue->start();
  announce(*queue);
  queues_.push_back(std::move(queue));
}

bool QueueSet::settle() noexcept {
  sinks_.tidyUp();
  for (const auto& queue : queues_) queue->log().update();
  const bool hasLess = removeRetired();
  return startAwaited() || hasLess;
}

bool QueueSet::removeRetired() noexcept {
  const auto end = std::remove_if(queues_.begin(), queues_.end(), [](const auto& queue) {
    if (!queue->hasRetired()) return false;
    queue->stop();
    if (!queue->hasEnded()) return false;  // waiting for it here would hold up the signals
    tryToLog([&] {
      return LogEntry(Event::NoLongerServed, spdlog::level::info, queue->name(),
                      "no longer served");
    });
    return true;
  });
  const bool isAny = end != queues_.end();
  queues_.erase(end, queues_.end());
  return isAny;
}

bool QueueSet::startAwaited() noexcept {
  const std::size_t before = awaited_.size();
  for (auto queue = awaited_.begin(); queue != awaited_.end();) {
    queue = tryToStart(*queue) ? awaited_.erase(queue) : std::next(queue);
  }
  return awaited_.size() != before;
}

void QueueSet::retire() noexcept {
  awaited_.clear();
  for (const auto& queue : queues_) queue->retire();
}

bool QueueSet::haveAllRetired() const noexcept {
  return std::all_of(queues_.begin(), queues_.end(),
                     [](const auto& queue) { return queue->hasRetired(); });
}

void QueueSet::stop() noexcept {
  isEnding_ = true;
  for (const auto& queue : queues_) queue->stop();
}

const ServedQueue* QueueSet::stillServing() const noexcept {
  for (const auto& queue : queues_)
    if (!queue->hasEnded()) return queue.get();
  return nullptr;
}

void QueueSet::removeEnded() noexcept {
  const auto end = std::remove_if(queues_.begin(), queues_.end(),
                                  [](const auto& queue) { return queue->hasEnded(); });
  queues_.erase(end, queues_.end());
}

void QueueSet::logStates() const {
  for (const auto& queue : queues_) queue->log().logState(queue->counters());
}

/// One that still serves its last stream is not without a server.
std::vector<std::string> QueueSet::awaited() const {
  std::vector<std::string> names;
  for (const Awaited& queue : awaited_) {
    const std::string& name = queue.settings.receiver.queue;
    if (find(name) == nullptr) names.push_back(name);
  }
  return names;
}

std::vector<QueueStats> QueueSet::stats() const {
  std::vector<QueueStats> stats;
  for (const auto& queue : queues_) {
    stats.push_back({queue->name(), &queue->counters(), &queue->log()});
  }
  return stats;
}

}  // namespace korvexd
