#include "korvexd/metrics/MetricsFile.h"

#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "common/QueueName.h"

namespace korvexd {
namespace {

namespace common = korvex::common;

/// Empty for anything but a file: reading a pipe would wait.
std::string earlierText(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(path, error))) return "";
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The file's name tells daemons apart: those of one machine write into one folder.
std::string daemonName(const std::string& path) {
  return common::jsonNameOf(std::filesystem::path(path).stem().string());
}

QueueFill::Activity activityOf(const QueueStats& queue) {
  using receiver::Count;
  const std::uint64_t pairs =
      queue.counters->get(Count::QueueReplacements) + queue.log->counts().newPairs;
  return {queue.log->heartbeat()->isResting(), queue.counters->get(Count::Batches) + pairs};
}

}  // namespace

MetricsFile::MetricsFile(const std::string& path, std::time_t started,
                         EngineFailuresOf engineFailuresOf)
    : file_(path, "metrics"),
      engineFailuresOf_(std::move(engineFailuresOf)),
      earlier_(earlierText(path)) {
  numbers_.name = daemonName(path);
  numbers_.started = started;
}

void MetricsFile::update(const std::vector<QueueStats>& queues, const DaemonState& daemon) {
  const auto now = QueueFill::Clock::now();
  numbers_.failures = daemon.failures;
  numbers_.configured = daemon.configured;
  numbers_.isReloadRefused = daemon.isReloadRefused;
  watch(queues, now);
  numbers_.queues.clear();
  for (const QueueStats& queue : queues) numbers_.queues.push_back(numbersOf(queue, now));
  numbers_.awaited.clear();
  for (const std::string& queue : daemon.awaited) {
    numbers_.awaited.push_back({common::jsonNameOf(queue), lastSuccessOf(queue, 0)});
  }
  const std::time_t time = std::time(nullptr);
  const bool isOld = time < numbers_.written || time - numbers_.written >= kLongestAge;
  if (!isOld && metricsText(numbers_) == text_) return;
  numbers_.written = time;
  write();
}

QueueNumbers MetricsFile::numbersOf(const QueueStats& queue, QueueFill::Clock::time_point now) {
  QueueNumbers numbers;
  numbers.name = common::jsonNameOf(queue.queue);
  numbers.counters = queue.counters;
  numbers.counts = &queue.log->counts();
  numbers.engineFailures = engineFailuresOf_(queue.queue);
  QueueFill& fill = fills_.at(queue.queue);
  fill.look(now, activityOf(queue));
  numbers.waiting = fill.messages();
  numbers.capacity = fill.capacity();
  numbers.fullSeconds = fill.fullTime().count();
  numbers.lastSuccess = lastSuccessOf(queue.queue, queue.log->counts().lastComplete);
  return numbers;
}

std::time_t MetricsFile::lastSuccessOf(const std::string& queue, std::time_t sinceTheStart) {
  auto last = successes_.find(queue);
  if (last == successes_.end()) {
    const std::time_t earlier = lastSuccessIn(earlier_, common::jsonNameOf(queue));
    last = successes_.emplace(queue, earlier).first;
  }
  if (sinceTheStart != 0) last->second = sinceTheStart;
  return last->second;
}

/// Queues come and go.
void MetricsFile::watch(const std::vector<QueueStats>& queues, QueueFill::Clock::time_point now) {
  auto before = std::exchange(fills_, {});
  for (const QueueStats& queue : queues) {
    if (auto known = before.extract(queue.queue)) {
      fills_.insert(std::move(known));
    } else {
      fills_.emplace(queue.queue, QueueFill(queue.queue, now));
    }
  }
}

void MetricsFile::write() {
  std::string text = metricsText(numbers_);
  try {
    file_.update(text);
  } catch (const std::exception&) {
    ++numbers_.metricsFailures;
    throw;
  }
  text_ = std::move(text);
}

}  // namespace korvexd
