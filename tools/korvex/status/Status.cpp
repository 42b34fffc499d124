#include "status/Status.h"

#include <CLI/CLI.hpp>
#include <korvex/receiver/BusErrorGuard.h>
#include <korvex/receiver/QueueSurvey.h>
#include <map>
#include <ostream>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/Printable.h"
#include "common/QueueName.h"
#include "status/StatusReport.h"

namespace korvex::tool {
namespace {

constexpr int kPeriod = 1000;     // milliseconds
constexpr double kSilence = 2.5;  // seconds without new statistics: nothing moves
constexpr const char* kClear = "\x1b[H\x1b[J";

double secondsNow() {
  timespec now = {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// How fast bytes come in: between two looks where there were two, else since the stream opened.
class Rates {
 public:
  double of(const std::string& queue, const StreamStats& stats) {
    if (!stats.open) return 0;
    Sample& last = samples_[queue];
    if (last.writtenAt > 0 && stats.writtenAt > last.writtenAt && stats.bytes >= last.bytes) {
      last.rate =
          static_cast<double>(stats.bytes - last.bytes) / (stats.writtenAt - last.writtenAt);
    } else if (last.writtenAt == 0) {
      last.rate = average(*stats.open, stats.writtenAt);
    }
    last.bytes = stats.bytes;
    last.writtenAt = stats.writtenAt;
    // The daemon writes when something changes.
    return secondsNow() - stats.writtenAt > kSilence && isWatching_ ? 0 : last.rate;
  }

  void watch() { isWatching_ = true; }

 private:
  struct Sample {
    std::uint64_t bytes = 0;
    double writtenAt = 0;
    double rate = 0;
  };

  static double average(const StreamStats::Open& open, double until) {
    const double seconds = until - static_cast<double>(open.since);
    return seconds > 0 ? static_cast<double>(open.bytes) / seconds : 0;
  }

  std::map<std::string, Sample> samples_;
  bool isWatching_ = false;
};

/// Everything that one look needs to know of earlier ones.
class Look {
 public:
  explicit Look(const StatusOptions& options) : options_(options) {
    if (options.watch) rates_.watch();
  }

  StatusReport now();

 private:
  void addPairs(StatusReport& report) const;
  void addStats(StatusReport& report);
  static StatsByQueue findAll(const StatusReport& report);
  StatsByQueue readAll(StatusReport& report) const;

  const StatusOptions& options_;
  Rates rates_;
};

StatusReport Look::now() {
  StatusReport report;
  report.now = std::time(nullptr);
  addPairs(report);
  addStats(report);
  return report;
}

void Look::addPairs(StatusReport& report) const {
  const receiver::ServingProcesses serving;
  if (options_.queue.empty()) {
    for (const std::string& name : receiver::pairNames()) {
      report.pairs.push_back({lookAtPair(name, serving), {}, 0});
    }
    report.halfMade = receiver::halfMadeQueues();
    return;
  }
  PairState pair = lookAtPair(common::plainQueueName(options_.queue), serving);
  report.hasFailed = !pair.exists();
  if (pair.exists()) {
    report.pairs.push_back({std::move(pair), {}, 0});
  } else {
    report.errors.push_back("queue '" + common::printable(options_.queue) +
                            "' does not exist: no daemon serves it");
  }
}

/// Any process that may open a queue can pose as its server. Only those of its owner and of root
/// are believed.
bool isBelievable(const PairState& pair) {
  const auto isRunFor = [&pair](const QueueState& queue) {
    return !queue.exists() || isProcessOf(pair.server.id, queue.object.user);
  };
  return pair.server.id != 0 &&
         (isProcessOf(pair.server.id, 0) || (isRunFor(pair.batches) && isRunFor(pair.replies)));
}

/// What the serving daemons say, each of the queues that it serves.
StatsByQueue Look::findAll(const StatusReport& report) {
  std::map<pid_t, StatsByQueue> byDaemon;
  StatsByQueue stats;
  for (const auto& pair : report.pairs) {
    if (!isBelievable(pair.state)) continue;
    const pid_t daemon = pair.state.server.id;
    const auto [said, isNew] = byDaemon.try_emplace(daemon);
    if (isNew) readStats(statsPathOf(daemon), said->second);
    const auto found = said->second.find(common::jsonNameOf(pair.state.name));
    if (found != said->second.end()) stats.insert(*found);
  }
  return stats;
}

StatsByQueue Look::readAll(StatusReport& report) const {
  if (options_.stats.empty()) return findAll(report);
  StatsByQueue stats;
  for (const std::string& path : options_.stats) {
    const std::string defect = readStats(path, stats);
    if (defect.empty()) continue;
    report.errors.push_back("cannot read the statistics '" + common::printable(path) +
                            "': " + defect);
    report.hasFailed = true;
  }
  return stats;
}

void Look::addStats(StatusReport& report) {
  const StatsByQueue stats = readAll(report);
  for (auto& pair : report.pairs) {
    const auto found = stats.find(common::jsonNameOf(pair.state.name));
    if (found == stats.end()) continue;
    pair.streams = found->second;
    pair.bytesPerSecond = rates_.of(found->first, found->second);
    // What a dead daemon wrote last is history: no stream of it is open any more.
    if (pair.state.service == PairState::Service::Abandoned) pair.streams->open.reset();
  }
}

/// As much of the text as the terminal has room for, one column and one line less.
std::string fitted(const std::string& text) {
  winsize size = {};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row < 2 || size.ws_col < 2) {
    return text;
  }
  std::string fitting;
  std::size_t rows = 0;
  for (std::size_t at = 0; at < text.size() && ++rows < size.ws_row;) {
    const std::size_t end = text.find('\n', at);
    const std::string_view line = std::string_view(text).substr(at, end - at);
    fitting += std::string(common::cutToColumns(line, size.ws_col - 1U)) + "\n";
    at = end + 1;
  }
  return fitting;
}

void tell(const StatusReport& report, const StatusOptions& options, std::ostream& out,
          std::ostream& errors) {
  for (const std::string& error : report.errors) errors << "korvex: " << error << std::endl;
  if (options.json) {
    out << report.json() << '\n';
  } else {
    out << report.text();
  }
}

void draw(const StatusReport& report, std::ostream& out) {
  std::string text = common::utcText(report.now) + ", every second; Ctrl-C ends\n";
  for (const std::string& error : report.errors) text += error + "\n";
  out << kClear << fitted(text + report.text());
}

/// False when a signal came.
bool waitForNext(const StopSignal& stop) {
  pollfd end = {stop.descriptor(), POLLIN, 0};
  ::poll(&end, 1, kPeriod);
  return stop.received() == 0;
}

Ending watch(Look& look, const StatusOptions& options, const StopSignal& stop, std::ostream& out,
             std::ostream& errors) {
  const bool isTerminal = !options.json && ::isatty(STDOUT_FILENO) == 1;
  do {
    const StatusReport report = look.now();
    if (isTerminal) {
      draw(report, out);
    } else {
      tell(report, options, out, errors);
      if (!options.json) out << '\n';
    }
  } while (out.flush() && waitForNext(stop));
  return stop.received() == 0 ? Ending{} : endedBySignal(stop.received());
}

}  // namespace

CLI::App* declareStatus(CLI::App& tool, StatusOptions& options) {
  CLI::App* const status = tool.add_subcommand(
      "status", "Show the queues in shared memory, who serves them, and what is wrong");
  status->add_option("--queue", options.queue, "Show only this pair of queues")
      ->check(common::checkQueueName)
      ->type_name("NAME");
  status
      ->add_option("--stats", options.stats,
                   "Read a daemon's statistics from FILE; by default, from the file named on a "
                   "serving daemon's command line or in its configuration")
      ->allow_extra_args(false)
      ->type_name("FILE");
  status->add_flag("--watch", options.watch, "Refresh every second until interrupted by a signal");
  status->add_flag("--json", options.json, "Write the result to standard output as a JSON object");
  return status;
}

Ending runStatus(const StatusOptions& options, const StopSignal& stop, std::ostream& out,
                 std::ostream& errors) {
  receiver::installBusErrorGuard();  // a queue may be truncated while it is examined
  Look look(options);
  if (options.watch) return watch(look, options, stop, out, errors);
  const StatusReport report = look.now();
  tell(report, options, out, errors);
  return report.ending();
}

}  // namespace korvex::tool
