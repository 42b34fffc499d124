#include "korvexd/report/StreamLog.h"

#include <algorithm>
#include <spdlog/fmt/fmt.h>
#include <utility>

#include "common/Printable.h"

namespace korvexd {

using korvex::receiver::BatchCheck;
using korvex::receiver::Ending;
using korvex::receiver::StreamSummary;

namespace level = spdlog::level;
namespace {

/// Out of memory, the line is lost; the stream continues.
template <typename Write>
void quietly(Write write) noexcept {
  try {
    write();
  } catch (const std::exception&) {
  }
}

/// A producer that stops its stream knows of it.
level::level_enum levelOf(Ending ending) {
  return ending == Ending::Stopped ? level::info : level::warn;
}

}  // namespace

StreamLog::StreamLog(std::string queue, const std::optional<std::string>& captureFolder)
    : queue_(std::move(queue)), log_(queue_) {
  if (captureFolder) captureWith(std::make_shared<Capture>(*captureFolder, queue_));
}

/// Numbers never go back: the log names batches by them.
void StreamLog::captureWith(std::shared_ptr<Capture> capture) noexcept {
  const std::lock_guard<std::mutex> lock(captureMutex_);
  capture_.swap(capture);
  failingCapture_ = nullptr;
  if (capture_) firstNumber_ = std::max(firstNumber_.load(), capture_->lastNumber());
}

std::shared_ptr<Capture> StreamLog::capture() noexcept {
  const std::lock_guard<std::mutex> lock(captureMutex_);
  return capture_;
}

StreamLog::~StreamLog() {
  quietly([this] { log_.finish(); });
}

void StreamLog::messageReceived(std::uint64_t number, const unsigned char* untrusted,
                                std::size_t size) noexcept {
  const std::shared_ptr<Capture> capture = this->capture();
  if (capture == nullptr) return;
  try {
    capture->store(firstNumber_ + number, untrusted, size);
    failingCapture_ = nullptr;
  } catch (const std::exception& error) {
    ++counts_.captureFailures;
    // The first in a row; a full disk would otherwise fill the log as well. One that was replaced
    // meanwhile does not speak for its successor.
    if (failingCapture_.exchange(capture.get()) == capture.get()) return;
    write(QueueLog::Kind::SinkTrouble, [&] {
      return LogEntry(Event::CaptureFailed, level::warn, queue_,
                      fmt::format("batch {}: {}", firstNumber_.load() + number, error.what()));
    });
  }
}

void StreamLog::streamOpened(const std::string& place) noexcept {
  noteOpening(place);
  write(QueueLog::Kind::StreamOpened, [&] {
    return LogEntry(Event::StreamOpened, level::info, queue_,
                    place.empty() ? "stream opened" : "stream opened, " + place)
        .with("place", place);
  });
}

/// Out of memory, the place is left out.
void StreamLog::noteOpening(const std::string& place) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  history_.open = {std::time(nullptr), {}};
  quietly([&] { history_.open->place = place; });
}

void StreamLog::noteEnd(const StreamSummary& summary, const std::string& reason) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  history_.open.reset();
  history_.endedBytes += summary.bytes;
  const bool isComplete = summary.ending == Ending::Complete;
  auto& last = isComplete ? history_.lastComplete : history_.lastIncomplete;
  last = {summary.closed, summary.bytes, {}};
  quietly([&] { last->reason = reason; });
}

void StreamLog::streamComplete(const StreamSummary& summary, const std::string& place) noexcept {
  noteEnd(summary, "");
  count(summary);
  counts_.lastComplete = summary.closed;
  write(QueueLog::Kind::Stream, [&] {
    return LogEntry(Event::StreamComplete, level::info, queue_,
                    fmt::format("stream complete, {} bytes in {} segments, xxh128 {}, {}",
                                summary.bytes, summary.segments, summary.xxh128, place))
        .with("bytes", summary.bytes)
        .with("segments", summary.segments)
        .with("xxh128", summary.xxh128)
        .with("place", place);
  });
}

void StreamLog::streamIncomplete(const StreamSummary& summary, const std::string& reason,
                                 const std::string& place) noexcept {
  noteEnd(summary, reason);
  count(summary);
  write(QueueLog::Kind::Stream, [&] {
    return LogEntry(Event::StreamIncomplete, levelOf(summary.ending), queue_,
                    fmt::format("stream incomplete ({}), {} bytes, {}", reason, summary.bytes,
                                place.empty() ? "nothing stored" : place))
        .with("result", resultOf(summary.ending))
        .with("reason", reason)
        .with("bytes", summary.bytes)
        .with("place", place);
  });
}

void StreamLog::abandoningFailed(const std::string& reason) noexcept {
  ++counts_.abandonFailures;
  write(QueueLog::Kind::SinkTrouble, [&] {
    return LogEntry(Event::AbandonFailed, level::warn, queue_,
                    "marking the stream incomplete: " + reason)
        .with("reason", reason);
  });
}

void StreamLog::batchRefused(std::uint64_t number, const BatchCheck& check) noexcept {
  ++counts_.batchesRefused[static_cast<std::size_t>(check.defect())];
  write(QueueLog::Kind::DamagedBatch, [&] {
    return LogEntry(Event::BatchRefused, level::warn, queue_,
                    fmt::format("batch {} is damaged: {}", firstNumber_ + number, check.text()))
        .with("batch", firstNumber_ + number)
        .with("reason", check.text());
  });
}

void StreamLog::recordRefused(const std::string& defect) noexcept {
  ++counts_.recordsRefused;
  write(QueueLog::Kind::RefusedRecord,
        [&] { return LogEntry(Event::RecordRefused, level::warn, queue_, defect); });
}

void StreamLog::queuesLost(const std::string& reason) noexcept {
  counts_.isServed = false;
  write(QueueLog::Kind::QueuePair, [&] {
    return LogEntry(Event::QueuesLost, level::warn, queue_, "the queues are lost: " + reason)
        .with("reason", reason);
  });
}

void StreamLog::queuesNotReplaced(const std::string& reason) noexcept {
  ++counts_.failuresToReplace;
  write(QueueLog::Kind::QueuePair, [&] {
    return LogEntry(Event::QueuesNotReplaced, level::err, queue_,
                    "the queues cannot be recreated yet: " + reason)
        .with("reason", reason);
  });
}

void StreamLog::queuesReplaced() noexcept {
  counts_.isServed = true;
  ++counts_.newPairs;
  write(QueueLog::Kind::QueuePair,
        [&] { return LogEntry(Event::QueuesReplaced, level::info, queue_, "served again"); });
}

void StreamLog::settingsChanged() noexcept {
  counts_.isServed = true;
  ++counts_.newPairs;
  write(QueueLog::Kind::QueuePair, [&] {
    return LogEntry(Event::SettingsChanged, level::info, queue_,
                    "served with the changed settings");
  });
}

void StreamLog::settingsNotChanged(const std::string& reason) noexcept {
  changeRefused_ = true;
  ++counts_.settingsFailures;
  counts_.isServed = false;
  write(QueueLog::Kind::QueuePair, [&] {
    return LogEntry(Event::SettingsNotChanged, level::err, queue_,
                    "cannot be served with the changed settings, keeping the old ones: " + reason)
        .with("reason", reason);
  });
}

void StreamLog::messagesLeft(std::size_t count) noexcept {
  counts_.messagesLeft += count;
  write(QueueLog::Kind::QueuePair, [&] {
    return LogEntry(Event::MessagesLeft, level::warn, queue_,
                    fmt::format("messages lost with the queue: {}", count))
        .with("messages", std::uint64_t{count});
  });
}

StreamHistory StreamLog::history() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return history_;
}

void StreamLog::logState(const korvex::receiver::Counters& counters) const {
  const StreamHistory now = history();
  if (now.open) {
    const std::uint64_t bytes = now.openBytes(counters);
    writeLog(LogEntry(Event::State, level::info, queue_,
                      fmt::format("stream open since {}, {} bytes, {}",
                                  korvex::common::utcText(now.open->since), bytes, now.open->place))
                 .with("bytes", bytes)
                 .with("place", now.open->place));
  } else if (now.lastComplete) {
    writeLog({Event::State, level::info, queue_,
              fmt::format("idle, last complete stream at {}, {} bytes",
                          korvex::common::utcText(now.lastComplete->at), now.lastComplete->bytes)});
  } else {
    writeLog({Event::State, level::info, queue_, "idle, no complete stream yet"});
  }
}

void StreamLog::update() noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  quietly([this] { log_.update(); });
}

void StreamLog::count(const StreamSummary& summary) noexcept {
  ++counts_.ended[static_cast<std::size_t>(summary.ending)];
}

template <typename MakeEntry>
void StreamLog::write(QueueLog::Kind kind, MakeEntry makeEntry) noexcept {
  quietly([&] {
    const LogEntry entry = makeEntry();
    const std::lock_guard<std::mutex> lock(mutex_);
    log_.write(kind, entry);
  });
}

}  // namespace korvexd
