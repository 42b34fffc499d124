#include "korvexd/exec/ExecStore.h"

#include <algorithm>
#include <spdlog/fmt/chrono.h>
#include <utility>

#include "common/QueueName.h"
#include "korvexd/exec/CommandWords.h"
#include "korvexd/exec/ExecSink.h"
#include "korvexd/log/LogEntry.h"

namespace korvexd {

namespace receiver = korvex::receiver;
namespace {

constexpr std::uint64_t kNanosecondsPerSecond = 1000000000;

std::uint64_t nanosecondsNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

void writeEngineLine(const std::string& queue, const std::string& stream, const std::string& line) {
  writeLog(LogEntry(Event::EngineLine, spdlog::level::info, "", stream + ": engine: " + line)
               .with("queue", queue)
               .with("stream", stream)
               .with("line", line));
}

}  // namespace

ExecStore::ExecStore(std::function<bool()> isEnding) : isEnding_(std::move(isEnding)) {}

/// Looks for the program each time: programs come and go.
std::unique_ptr<receiver::Sink> ExecStore::open(const Command& command, const std::string& queue,
                                                std::time_t opened) try {
  tidyUp();
  const std::string name = nameFor(queue, opened);
  const Engine::Command engineCommand = {
      findProgram(command.words.front()),
      command.words,
      {"KORVEX_QUEUE=" + queue,
       fmt::format("KORVEX_OPENED={:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(opened)),
       "KORVEX_STREAM=" + name},
      command.timeout};
  auto engine = std::make_unique<Engine>(
      keepers_, engineCommand,
      [queue, name](const std::string& line) { writeEngineLine(queue, name, line); });
  auto sink = std::make_unique<ExecSink>(
      *this, std::move(engine),
      ExecSink::Settings{queue, name, command.words.front(), command.timeout, isEnding_});
  sink->awaitStart();
  return sink;
} catch (const std::exception&) {
  noteFailure(queue, EngineFailure::NotStarted);
  throw;
}

/// Ends in the nanoseconds of the current second: a count would start again with each daemon.
std::string ExecStore::nameFor(const std::string& queue, std::time_t opened) {
  const std::lock_guard<std::mutex> lock(mutex_);
  lastNumber_ = std::max(lastNumber_ + 1, nanosecondsNow());
  // Nine digits: the tenth, added here and cut off below, keeps the leading zeros.
  const std::string number =
      std::to_string(kNanosecondsPerSecond + lastNumber_ % kNanosecondsPerSecond);
  return fmt::format("{}-{:%Y%m%dT%H%M%SZ}-{}", korvex::common::fileNameOf(queue),
                     fmt::gmtime(opened), number.substr(1));
}

void ExecStore::lookAfter(std::unique_ptr<Engine>&& engine) {
  const std::lock_guard<std::mutex> lock(mutex_);
  dying_.push_back(std::move(engine));
}

void ExecStore::noteFailure(const std::string& queue, EngineFailure failure) {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++failures_[queue][static_cast<std::size_t>(failure)];
}

EngineFailureCounts ExecStore::failuresOf(const std::string& queue) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = failures_.find(queue);
  return found == failures_.end() ? EngineFailureCounts{} : found->second;
}

void ExecStore::tidyUp() noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto end = std::remove_if(dying_.begin(), dying_.end(),
                                  [](const auto& engine) { return engine->isGone(); });
  dying_.erase(end, dying_.end());
}

}  // namespace korvexd
