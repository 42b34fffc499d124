#include "verify/Verify.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <numeric>
#include <ostream>
#include <system_error>
#include <thread>

#include "common/CommandLine.h"
#include "verify/StreamCheck.h"
#include "verify/VerifyReport.h"

namespace korvex::tool {
namespace {

using Clock = Progress::Clock;

constexpr unsigned kMostJobs = 1024;
constexpr std::chrono::milliseconds kDrawingPeriod{100};

/// One run of the command: lists everything, then threads take stream by stream.
class VerifyRun {
 public:
  VerifyRun(const VerifyOptions& options, const StopSignal& stop, Progress& progress)
      : options_(options), stop_(stop), progress_(progress), start_(Clock::now()) {}

  VerifyReport run();

 private:
  void list();
  void checkAll();
  std::size_t threadCount() const;
  void startThreads(std::vector<std::thread>& threads);
  void awaitThreads();
  void work();
  void checkInTurn();
  void check(StreamCheck& check, StoredStream& stream) const;

  const VerifyOptions& options_;
  const StopSignal& stop_;
  Progress& progress_;
  Clock::time_point start_;
  VerifyReport report_;
  std::vector<StoredStream*> work_;  ///< largest first: no thread should end alone with a large one
  std::atomic<std::size_t> next_{0};
  std::atomic<std::uint64_t> bytesRead_{0};
  std::mutex mutex_;
  std::condition_variable threadEnded_;
  std::size_t running_ = 0;
};

VerifyReport VerifyRun::run() {
  list();
  checkAll();
  report_.isQuick = options_.quick;
  report_.signal = stop_.received();
  report_.bytes = bytesRead_;
  report_.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  return std::move(report_);
}

void VerifyRun::list() {
  for (const std::string& folder : options_.folders) {
    try {
      std::vector<StoredStream> found = streamsIn(folder);
      std::move(found.begin(), found.end(), std::back_inserter(report_.streams));
    } catch (const Failure& failure) {
      report_.failures.push_back(failure);
    }
  }
  for (StoredStream& stream : report_.streams) work_.push_back(&stream);
  std::stable_sort(work_.begin(), work_.end(), [](const auto* left, const auto* right) {
    return left->dataSize > right->dataSize;
  });
}

void VerifyRun::checkAll() {
  const auto add = [](std::uint64_t sum, const StoredStream& stream) {
    return sum + (stream.state == StreamState::Unchecked ? stream.dataSize : 0);
  };
  const auto& streams = report_.streams;
  progress_.start(std::accumulate(streams.begin(), streams.end(), std::uint64_t{0}, add), start_);
  std::vector<std::thread> threads;
  startThreads(threads);
  awaitThreads();
  for (std::thread& thread : threads) thread.join();
}

std::size_t VerifyRun::threadCount() const {
  const std::size_t wanted =
      options_.jobs > 0 ? options_.jobs : std::thread::hardware_concurrency();
  return std::min(std::max(wanted, std::size_t{1}), work_.size());
}

/// With fewer threads than wanted it takes longer; with none, the caller does the work.
void VerifyRun::startThreads(std::vector<std::thread>& threads) {
  const std::size_t count = threadCount();
  threads.reserve(count);
  const std::lock_guard<std::mutex> lock(mutex_);
  try {
    for (; running_ < count; ++running_) threads.emplace_back([this] { work(); });
  } catch (const std::system_error&) {
    if (running_ == 0) checkInTurn();
  }
}

void VerifyRun::awaitThreads() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!threadEnded_.wait_for(lock, kDrawingPeriod, [this] { return running_ == 0; })) {
    progress_.show(bytesRead_, Clock::now());
  }
}

void VerifyRun::work() {
  checkInTurn();
  const std::lock_guard<std::mutex> lock(mutex_);
  --running_;
  threadEnded_.notify_one();
}

/// After a signal the rest stays unchecked.
void VerifyRun::checkInTurn() {
  StreamCheck streamCheck(options_.quick ? CheckDepth::Quick : CheckDepth::Both, stop_, bytesRead_);
  try {
    for (std::size_t i = next_++; i < work_.size(); i = next_++) check(streamCheck, *work_[i]);
  } catch (const Interrupted&) {
  }
}

/// If memory runs out, it is unknown whether the stream is good.
void VerifyRun::check(StreamCheck& check, StoredStream& stream) const {
  try {
    check.check(stream);
  } catch (const std::exception& error) {
    stream.state = StreamState::Damaged;
    stream.problems.push_back({"data", std::string("could not be checked: ") + error.what()});
  }
}

bool isListed(const StoredStream& stream, const VerifyOptions& options) {
  return !options.quiet || stream.state == StreamState::Damaged;
}

void print(const VerifyReport& report, const VerifyOptions& options, std::ostream& out) {
  for (const StoredStream& stream : report.streams) {
    if (isListed(stream, options)) out << lineOf(stream) << '\n';
  }
  if (!options.quiet) out << report.summary() << '\n';
}

}  // namespace

CLI::App* declareVerify(CLI::App& tool, VerifyOptions& options) {
  CLI::App* const verify =
      tool.add_subcommand("verify", "Check stored streams against their manifests");
  CLI::Option* const jobs = verify->add_option(
      "--jobs", options.jobs, "Streams to read at the same time; one per core by default");
  common::takeWholeNumber(*jobs->type_name("N"), 1, kMostJobs);
  verify->add_flag("--quick", options.quick, "Compare sizes and XXH128 only, not SHA-256");
  verify->add_flag("--quiet", options.quiet, "List damaged streams only");
  verify->add_flag("--json", options.json, "Write the result to standard output as a JSON object");
  verify
      ->add_option("DIR", options.folders,
                   "Folders that a daemon stores streams in, or folders of single streams")
      ->required();
  return verify;
}

Ending runVerify(const VerifyOptions& options, const StopSignal& stop, Progress progress,
                 std::ostream& out, std::ostream& errors) {
  const VerifyReport report = VerifyRun(options, stop, progress).run();
  progress.clear();
  for (const Failure& failure : report.failures)
    errors << "korvex: " << failure.what() << std::endl;
  if (report.signal != 0) {
    errors << "korvex: interrupted by signal " << report.signal << std::endl;
  }
  if (options.json) {
    out << report.json() << '\n';
  } else {
    print(report, options, out);
  }
  return report.ending();
}

}  // namespace korvex::tool
