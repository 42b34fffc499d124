#include "korvexd/report/StreamLog.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <utility>

namespace korvexd {

using korvex::receiver::StreamSummary;

StreamLog::StreamLog(std::string queue, const std::optional<std::string>& captureFolder)
    : queue_(std::move(queue)), log_(queue_) {
  if (captureFolder) captureWith(Capture(*captureFolder, queue_));
}

/// Numbers never go back: the log names batches by them.
void StreamLog::captureWith(std::optional<Capture> capture) noexcept {
  const std::lock_guard<std::mutex> lock(captureMutex_);
  capture_ = std::move(capture);
  if (capture_) firstNumber_ = std::max(firstNumber_.load(), capture_->lastNumber());
}

StreamLog::~StreamLog() { log_.finish(); }

void StreamLog::messageReceived(std::uint64_t number, const unsigned char* untrusted,
                                std::size_t size) noexcept {
  const std::lock_guard<std::mutex> lock(captureMutex_);
  if (!capture_) return;
  try {
    capture_->store(firstNumber_ + number, untrusted, size);
  } catch (const std::exception& error) {
    // Reported once; a full disk would otherwise fill the log as well.
    if (captureFailures_++ > 0) return;
    spdlog::warn("{}: batch {}: {}", queue_, firstNumber_.load() + number, error.what());
  }
}

void StreamLog::streamComplete(const StreamSummary& summary, const std::string& place) noexcept {
  write(QueueLog::Kind::Stream, spdlog::level::info,
        "stream complete, {} bytes in {} segments, xxh128 {}, {}", summary.bytes, summary.segments,
        summary.xxh128, place);
}

void StreamLog::streamIncomplete(const StreamSummary& summary, const std::string& reason,
                                 const std::string& place) noexcept {
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

void StreamLog::settingsChanged() noexcept {
  write(QueueLog::Kind::QueuePair, spdlog::level::info, "served with the changed settings");
}

void StreamLog::settingsNotChanged(const std::string& reason) noexcept {
  changeRefused_ = true;
  write(QueueLog::Kind::QueuePair, spdlog::level::err,
        "cannot be served with the changed settings, the old ones hold again: {}", reason);
}

void StreamLog::messagesLeft(std::size_t count) noexcept {
  write(QueueLog::Kind::QueuePair, spdlog::level::warn, "the daemon ends, messages not taken: {}",
        count);
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
