#include "korvexd/report/StreamLog.h"

#include <spdlog/spdlog.h>

#include <utility>

#include "common/Printable.h"

namespace korvexd {

using korvex::receiver::StreamSummary;

StreamLog::StreamLog(std::string queue, const std::optional<std::string>& captureFolder)
    : queue_(std::move(queue)), log_(queue_) {
  if (!captureFolder) return;
  capture_.emplace(*captureFolder, queue_);
  firstNumber_ = capture_->lastNumber();
}

StreamLog::~StreamLog() { log_.finish(); }

void StreamLog::messageReceived(std::uint64_t number, const unsigned char* untrusted,
                                std::size_t size) noexcept {
  if (!capture_) return;
  try {
    capture_->store(firstNumber_ + number, untrusted, size);
  } catch (const std::exception& error) {
    // Reported once; a full disk would otherwise fill the log as well.
    if (captureFailures_++ > 0) return;
    spdlog::warn("{}: batch {}: {}", queue_, firstNumber_ + number, error.what());
  }
}

/// Where memory is short, the place is left out.
void StreamLog::streamOpened(const std::string& place) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  history_.open = {std::time(nullptr), {}};
  try {
    history_.open->place = place;
  } catch (const std::bad_alloc&) {
  }
}

void StreamLog::noteEnd(const StreamSummary& summary, const std::string& reason) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  history_.open.reset();
  history_.endedBytes += summary.bytes;
  auto& last = reason.empty() ? history_.lastComplete : history_.lastIncomplete;
  last = {summary.closed, summary.bytes, {}};
  try {
    last->reason = reason;
  } catch (const std::bad_alloc&) {
  }
}

void StreamLog::streamComplete(const StreamSummary& summary, const std::string& place) noexcept {
  noteEnd(summary, "");
  write(QueueLog::Kind::Stream, spdlog::level::info,
        "stream complete, {} bytes in {} segments, xxh128 {}, {}", summary.bytes, summary.segments,
        summary.xxh128, place);
}

void StreamLog::streamIncomplete(const StreamSummary& summary, const std::string& reason,
                                 const std::string& place) noexcept {
  noteEnd(summary, reason);
  write(QueueLog::Kind::Stream, spdlog::level::info, "stream incomplete ({}), {} bytes, {}", reason,
        summary.bytes, place.empty() ? "nothing stored" : place.c_str());
}

void StreamLog::abandoningFailed(const std::string& reason) noexcept {
  write(QueueLog::Kind::SinkTrouble, spdlog::level::warn, "marking the stream incomplete: {}",
        reason);
}

void StreamLog::batchRefused(std::uint64_t number, const std::string& defect) noexcept {
  write(QueueLog::Kind::DamagedBatch, spdlog::level::warn, "batch {} is damaged: {}",
        firstNumber_ + number, defect);
}

void StreamLog::recordRefused(const std::string& defect) noexcept {
  write(QueueLog::Kind::RefusedRecord, spdlog::level::warn, "{}", defect);
}

void StreamLog::queuesLost(const std::string& reason) noexcept {
  write(QueueLog::Kind::QueuePair, spdlog::level::warn, "the queues are lost: {}", reason);
}

void StreamLog::queuesNotReplaced(const std::string& reason) noexcept {
  write(QueueLog::Kind::QueuePair, spdlog::level::err, "the queues cannot be made again yet: {}",
        reason);
}

void StreamLog::queuesReplaced() noexcept {
  write(QueueLog::Kind::QueuePair, spdlog::level::info, "served again");
}

void StreamLog::messagesLeft(std::size_t count) noexcept {
  write(QueueLog::Kind::QueuePair, spdlog::level::warn, "the daemon ends, messages not taken: {}",
        count);
}

StreamHistory StreamLog::history() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return history_;
}

void StreamLog::logState(const korvex::receiver::Counters& counters) const {
  const StreamHistory now = history();
  if (now.open) {
    spdlog::info("{}: stream open since {}, {} bytes, {}", queue_,
                 korvex::common::utcText(now.open->since), now.openBytes(counters),
                 now.open->place);
  } else if (now.lastComplete) {
    spdlog::info("{}: idle, last complete stream at {}, {} bytes", queue_,
                 korvex::common::utcText(now.lastComplete->at), now.lastComplete->bytes);
  } else {
    spdlog::info("{}: idle, no complete stream yet", queue_);
  }
}

void StreamLog::update() {
  const std::lock_guard<std::mutex> lock(mutex_);
  log_.update();
}

/// A line that memory is too short for is lost; the stream goes on.
template <typename... Values>
void StreamLog::write(QueueLog::Kind kind, spdlog::level::level_enum level, const char* format,
                      const Values&... values) noexcept {
  try {
    const std::string text = fmt::format(fmt::runtime(format), values...);
    const std::lock_guard<std::mutex> lock(mutex_);
    log_.write(kind, level, text);
  } catch (const std::exception&) {
  }
}

}  // namespace korvexd
