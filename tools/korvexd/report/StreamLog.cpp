#include "korvexd/report/StreamLog.h"

#include <spdlog/spdlog.h>

#include <utility>

namespace korvexd {

using korvex::receiver::StreamSummary;

StreamLog::StreamLog(std::string queue, const std::optional<std::string>& captureFolder)
    : queue_(std::move(queue)) {
  if (!captureFolder) return;
  capture_.emplace(*captureFolder, queue_);
  firstNumber_ = capture_->lastNumber();
}

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

void StreamLog::streamComplete(const StreamSummary& summary, const std::string& place) noexcept {
  spdlog::info("{}: stream complete, {} bytes in {} segments, xxh128 {}, {}", queue_, summary.bytes,
               summary.segments, summary.xxh128, place);
}

void StreamLog::streamIncomplete(const StreamSummary& summary, const std::string& reason,
                                 const std::string& place) noexcept {
  spdlog::info("{}: stream incomplete ({}), {} bytes, {}", queue_, reason, summary.bytes,
               place.empty() ? "nothing stored" : place.c_str());
}

void StreamLog::abandoningFailed(const std::string& reason) noexcept {
  spdlog::warn("{}: marking the stream incomplete: {}", queue_, reason);
}

void StreamLog::batchRefused(std::uint64_t number, const std::string& defect) noexcept {
  spdlog::warn("{}: batch {} is damaged: {}", queue_, firstNumber_ + number, defect);
}

void StreamLog::recordRefused(const std::string& defect) noexcept {
  spdlog::warn("{}: {}", queue_, defect);
}

void StreamLog::queuesLost(const std::string& reason) noexcept {
  spdlog::warn("{}: the queues are lost: {}", queue_, reason);
}

void StreamLog::queuesNotReplaced(const std::string& reason) noexcept {
  spdlog::error("{}: the queues cannot be made again yet: {}", queue_, reason);
}

void StreamLog::queuesReplaced() noexcept { spdlog::info("{}: served again", queue_); }

void StreamLog::messagesLeft(std::size_t count) noexcept {
  spdlog::warn("{}: the daemon ends, messages not taken: {}", queue_, count);
}

}  // namespace korvexd
