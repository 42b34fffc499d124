#include "stream/StreamSession.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include "korvex/Status.h"
#include "shm/Format.h"

namespace korvex::receiver {
namespace {

using Header = qmx_shm_message_t;
using Entry = ShmBatch::Entry;

/// No record carries the number behind the open record's.
constexpr std::uint64_t kStepAfterOpen = 2;

std::string recordText(const Header& header) {
  return "record type " + std::to_string(header.type) + " sequence " +
         std::to_string(header.sequence);
}

/// What is wrong with a record whatever came before it; empty when nothing is. Data on a record
/// that cannot carry any is refused, because it would be lost silently.
std::string defectOf(const Header& header) {
  if (header.type > kTypeStop) return recordText(header) + ": unknown type, expected 0 to 4";
  if (header.type != kTypeSegmentData && header.len != 0) {
    return recordText(header) + ": found " + std::to_string(header.len) +
           " data bytes, expected none";
  }
  return "";
}

/// Only people read it: a sink that cannot say where its data is has stored it all the same.
std::string placeOf(const Sink* sink) noexcept {
  try {
    return sink == nullptr ? "" : sink->place();
  } catch (const std::exception&) {
    return "";
  }
}

}  // namespace

StreamSession::StreamSession(std::string queue, SinkFactory openSink, Counters& counters,
                             Observer& observer, StillFinishing stillFinishing)
    : queue_(std::move(queue)),
      openSink_(std::move(openSink)),
      counters_(counters),
      observer_(observer),
      stillFinishing_(std::move(stillFinishing)) {}

StreamSession::~StreamSession() { end("abandoned"); }

StreamSession::Answer StreamSession::take(const Entry& record) {
  counters_.add(Count::Records);
  if (record.header.type == kTypeOpen) return takeOpen(record.header);
  if (state_ == State::Open) return takeInStream(record);
  return takeOutside(record.header);
}

StreamSession::Answer StreamSession::takeOpen(const Header& header) {
  // The producer of the open stream is gone. No reply: it would reach the new producer.
  cutOffAnother_ = state_ == State::Open;
  end("a new stream was opened before its close");
  const std::string defect = defectOf(header);
  if (!defect.empty()) return refuse(defect);
  startStream(header);
  try {
    sink_ = openSink_(queue_, opened_);
    if (sink_ == nullptr) throw std::logic_error("the daemon made no sink for the stream");
  } catch (const std::exception& error) {
    return fail(kStatusSinkFailed, error.what());
  }
  return {};
}

void StreamSession::startStream(const Header& header) {
  counters_.add(Count::StreamsOpened);
  state_ = State::Open;
  digest_.reset();
  lastSequence_ = header.sequence;
  segmentHasData_ = false;
  opened_ = std::time(nullptr);
  segments_ = 0;
  records_ = 1;
}

/// Records when no stream is open, or in what is left of a failed one.
StreamSession::Answer StreamSession::takeOutside(const Header& header) {
  const bool isClose = header.type == kTypeClose;
  const bool isStop = header.type == kTypeStop;  // may come without a stream
  if (state_ == State::Failed) {
    if (isClose || isStop) {
      endWith(header);
    } else {
      counters_.add(Count::DroppedRecords);
    }
    return {};
  }
  const std::string defect = defectOf(header);
  if (!defect.empty()) return refuse(defect);
  const bool isAgain = state_ == State::Ended && header.sequence > lastSequence_;
  if (isStop || (isClose && isAgain)) {
    endWith(header);
    return {};
  }
  return refuse(recordText(header) + ": no stream is open, expected type 0");
}

/// A writer that stopped is still open, and so is one whose close failed because it met a failure
/// reply or found no room in time: they close again, at the latest when they are destroyed. An
/// answer to that would reach the next producer.
void StreamSession::endWith(const Header& header) {
  state_ = State::Ended;
  lastSequence_ = header.sequence;
}

StreamSession::Answer StreamSession::takeInStream(const Entry& record) {
  const Header& header = record.header;
  const std::string defect = defectOf(header);
  if (!defect.empty()) return refuse(defect);
  const std::string outOfOrder = sequenceDefectOf(header);
  if (!outOfOrder.empty()) return refuse(outOfOrder);
  lastSequence_ = header.sequence;
  ++records_;
  if (header.type == kTypeSegmentData) return takeData(record);
  finishSegment();
  if (header.type == kTypeClose) return takeClose(header);
  if (header.type == kTypeStop) return takeStop(header);
  return {};
}

/// Gaps are right: a record that a writer refused has used up its number. But a stream that cut
/// another one off may not have any: the other producer may live, and what it still sends, its
/// close too, would be taken for this stream's. And none may be before the close: a writer whose
/// last write failed closes all the same when it is destroyed, and the data ends too early.
std::string StreamSession::sequenceDefectOf(const Header& header) const {
  const std::uint64_t next = lastSequence_ + (records_ == 1 ? kStepAfterOpen : 1);
  if (cutOffAnother_ && header.sequence != next) {
    return recordText(header) + ": expected sequence " + std::to_string(next) +
           "; two producers on one queue?";
  }
  if (header.sequence <= lastSequence_) {
    return recordText(header) + ": expected a sequence above " + std::to_string(lastSequence_);
  }
  if (header.type == kTypeClose && header.sequence != next) {
    return recordText(header) + ": expected sequence " + std::to_string(next) +
           "; the last record before the close is missing";
  }
  return "";
}

StreamSession::Answer StreamSession::takeData(const Entry& record) {
  const std::size_t size = record.header.len;
  if (size == 0) return {};
  segmentHasData_ = true;
  try {
    sink_->write(record.data, size);
  } catch (const std::exception& error) {
    return fail(kStatusSinkFailed, error.what());
  }
  digest_.add(record.data, size);
  counters_.add(Count::Bytes, size);
  return {};
}

void StreamSession::finishSegment() {
  if (!segmentHasData_) return;
  ++segments_;
  segmentHasData_ = false;
}

StreamSession::Answer StreamSession::takeClose(const Header& header) {
  const StreamSummary whole = summary();
  try {
    sink_->complete(whole, stillFinishing_);
  } catch (const std::exception& error) {
    const Answer answer = fail(kStatusSinkFailed, error.what());
    endWith(header);
    return answer;
  }
  counters_.add(Count::StreamsComplete);
  observer_.streamComplete(whole, placeOf(sink_.get()));
  sink_.reset();
  endWith(header);
  return replyOf(0, Receipt{whole.bytes, whole.xxh128}.replyText());
}

StreamSession::Answer StreamSession::takeStop(const Header& header) {
  leaveIncomplete("stopped by the producer");
  endWith(header);
  return {};
}

StreamSession::Answer StreamSession::takeDamage(const std::string& defect) {
  if (state_ == State::Failed) return {};
  const std::string text = "damaged batch: " + defect;
  if (state_ == State::Open) return fail(kStatusCorrupt, text);
  return replyOf(kStatusCorrupt, text);
}

StreamSession::Answer StreamSession::checkSink() {
  if (state_ != State::Open) return {};
  try {
    sink_->check();
  } catch (const std::exception& error) {
    return fail(kStatusSinkFailed, error.what());
  }
  return {};
}

StreamSession::Answer StreamSession::takeSilence(std::chrono::seconds silence) {
  if (state_ != State::Open) return {};
  return fail(kStatusSinkFailed,
              "nothing came for " + std::to_string(silence.count()) + " seconds");
}

/// Drops a record that breaks the protocol, and with it the stream.
StreamSession::Answer StreamSession::refuse(const std::string& text) {
  counters_.add(Count::DroppedRecords);
  return fail(kStatusCorrupt, text);
}

StreamSession::Answer StreamSession::fail(ov_status_t status, const std::string& text) {
  if (state_ == State::Open) {
    leaveIncomplete(text);
  } else {
    observer_.recordRefused(text);
  }
  state_ = State::Failed;
  return replyOf(status, text);
}

void StreamSession::end(const std::string& reason) {
  if (state_ == State::Open) leaveIncomplete(reason);
  state_ = State::Idle;
}

void StreamSession::leaveIncomplete(const std::string& reason) {
  counters_.add(Count::StreamsIncomplete);
  if (sink_ != nullptr) abandonSink(reason);
  observer_.streamIncomplete(summary(), reason, placeOf(sink_.get()));
  sink_.reset();
}

void StreamSession::abandonSink(const std::string& reason) {
  try {
    sink_->abandon(summary(), reason);
  } catch (const std::exception& error) {
    observer_.abandoningFailed(error.what());
  }
}

StreamSummary StreamSession::summary() const {
  const Receipt taken = digest_.expected();
  return {queue_, opened_, std::time(nullptr), taken.bytes, segments_, records_, taken.xxh128};
}

}  // namespace korvex::receiver
