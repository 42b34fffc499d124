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

}  // namespace

MetricsFile::MetricsFile(const std::string& path, EngineFailuresOf engineFailuresOf)
    : file_(path, "metrics"),
      engineFailuresOf_(std::move(engineFailuresOf)),
      earlier_(earlierText(path)) {
  numbers_.name = daemonName(path);
  numbers_.started = std::time(nullptr);
}

void MetricsFile::update(const std::vector<QueueStats>& queues, std::uint64_t statsFailures) {
  const auto now = QueueFill::Clock::now();
  numbers_.statsFailures = statsFailures;
  watch(queues, now);
  numbers_.queues.clear();
  for (const QueueStats& queue : queues) numbers_.queues.push_back(numbersOf(queue, now));
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
  Watched& watched = watched_.at(queue.queue);
  watched.fill.look(now);
  numbers.waiting = watched.fill.messages();
  numbers.capacity = watched.fill.capacity();
  numbers.fullSeconds = watched.fill.fullTime().count();
  const std::time_t ownSuccess = queue.log->counts().lastComplete;
  numbers.lastSuccess = ownSuccess != 0 ? ownSuccess : watched.earlierSuccess;
  return numbers;
}

/// Queues come and go; the view of one that is gone would keep its memory.
void MetricsFile::watch(const std::vector<QueueStats>& queues, QueueFill::Clock::time_point now) {
  auto before = std::exchange(watched_, {});
  for (const QueueStats& queue : queues) {
    if (auto known = before.extract(queue.queue)) {
      watched_.insert(std::move(known));
    } else {
      watched_.emplace(queue.queue,
                       Watched{QueueFill(queue.queue, now),
                               lastSuccessIn(earlier_, common::jsonNameOf(queue.queue))});
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
