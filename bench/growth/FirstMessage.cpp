// How long a message waits on a queue that has long been idle, each try on another of the daemon's
// queues; or, with --replies, how long a batch waits for its reply. Prints one JSON object.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>
#include <iostream>
#include <korvex/ShmWriter.h>
#include <korvex/receiver/QueueStatus.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Replies.h"

namespace {

using korvex::ShmWriter;
using korvex::receiver::QueueStatus;
using Clock = std::chrono::steady_clock;

constexpr unsigned kTimeoutSeconds = 60;
constexpr int kExitFailed = 1;
constexpr double kHigh = 0.99;

/// Longer than a daemon stays alert after a process opened a queue.
constexpr std::chrono::seconds kUntilIdle{3};

/// Random between these, so that the tries meet every moment of the daemon's period.
constexpr std::chrono::microseconds kShortestGap{20000};
constexpr std::chrono::microseconds kLongestGap{50000};

std::unique_ptr<ShmWriter> writerOf(const std::string& queue) {
  return std::make_unique<ShmWriter>("first", queue, kTimeoutSeconds, kTimeoutSeconds, false);
}

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/// Sends the first message and waits until it was taken.
double taken(ShmWriter& writer, const QueueStatus& queue) {
  const auto start = Clock::now();
  writer.open();
  while (queue.messages() > 0) std::this_thread::yield();
  return millisecondsSince(start);
}

class Gaps {
 public:
  void sleep() { std::this_thread::sleep_for(std::chrono::microseconds(gap_(random_))); }

 private:
  std::minstd_rand random_{1};
  std::uniform_int_distribution<long> gap_{kShortestGap.count(), kLongestGap.count()};
};

/// What the producers wait that had their queues open long before.
std::vector<double> triesOfAttached(const std::vector<std::string>& queues) {
  std::vector<std::unique_ptr<ShmWriter>> writers;
  std::vector<QueueStatus> views;
  for (const std::string& queue : queues) {
    writers.push_back(writerOf(queue));
    views.emplace_back(queue);
  }
  std::this_thread::sleep_for(kUntilIdle);
  Gaps gaps;
  std::vector<double> found;
  for (std::size_t i = 0; i < queues.size(); ++i) {
    gaps.sleep();
    found.push_back(taken(*writers[i], views[i]));
    writers[i]->close();
  }
  return found;
}

/// What a producer waits that comes just now.
std::vector<double> triesOfNew(const std::vector<std::string>& queues) {
  Gaps gaps;
  std::vector<double> found;
  for (const std::string& queue : queues) {
    gaps.sleep();
    const QueueStatus view(queue);
    const auto writer = writerOf(queue);
    found.push_back(taken(*writer, view));
    writer->close();
  }
  return found;
}

nlohmann::json summary(std::vector<double> milliseconds) {
  std::sort(milliseconds.begin(), milliseconds.end());
  const auto high =
      static_cast<std::size_t>(std::ceil(static_cast<double>(milliseconds.size()) * kHigh)) - 1;
  return {{"median_ms", milliseconds[milliseconds.size() / 2]}, {"p99_ms", milliseconds[high]}};
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Times the first message on each of a running daemon's idle queues, as JSON"};
  std::vector<std::string> queues;
  unsigned replies = 0;
  app.add_option("--queue", queues, "The daemon's queues, one for each try")->required();
  app.add_option("--replies", replies, "Time so many replies on the first queue instead");
  CLI11_PARSE(app, argc, argv);
  try {
    if (replies > 0) {
      std::cout << summary(bench::waitsForReplies(queues.front(), replies)).dump() << std::endl;
      return 0;
    }
    const auto attached = summary(triesOfAttached(queues));
    std::this_thread::sleep_for(kUntilIdle);
    const auto fresh = summary(triesOfNew(queues));
    std::cout << nlohmann::json{{"attached", attached}, {"new", fresh}}.dump() << std::endl;
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "korvex_first_message: " << error.what() << '\n';
    return kExitFailed;
  }
}
