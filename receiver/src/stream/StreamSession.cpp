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

/// No record carries the number after the open record's.
constexpr std::uint64_t kStepAfterOpen = 2;

std::string recordText(const Header& header) {
  return "record type " + std::to_string(header.type) + " sequence " +
         std::to_string(header.sequence);
}

/// What is wrong with a record regardless of those before it; empty if nothing is. Data on a record
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
  switch (state_) {
    case State::Idle:
      return takeWithoutStream(record.header);
    case State::Failed:
      return takeOfFailedStream(record.header);
    case State::Ended:
      return takeAfterEnd(record.header);
    case State::Open:
      break;
  }
  return takeInStream(record);
}

StreamSession::Answer StreamSession::takeOpen(const Header& header) {
  // The producer of the open stream is gone. No reply: it would reach the new producer.
  const bool cutsOffAnother = state_ == State::Open;
  end("a new stream was opened before its close");
  const std::string defect = defectOf(header);
  if (!defect.empty()) return refuse(defect);
  startStream(header, cutsOffAnother);
  try {
    sink_ = openSink_(queue_, stream_.opened);
    if (sink_ == nullptr) throw std::logic_error("the daemon made no sink for the stream");
  } catch (const std::exception& error) {
    return fail(kStatusSinkFailed, error.what());
  }
  observer_.streamOpened(placeOf(sink_.get()));
  return {};
}

void StreamSession::startStream(const Header& header, bool cutsOffAnother) {
  counters_.add(Count::StreamsOpened);
  state_ = State::Open;
  digest_.reset();
  stream_ = Stream();
  stream_.opened = std::time(nullptr);
  stream_.lastSequence = header.sequence;
  stream_.cutOffAnother = cutsOffAnother;
}

/// A stop may come without a stream.
StreamSession::Answer StreamSession::takeWithoutStream(const Header& header) {
  const std::string defect = defectOf(header);
  if (!defect.empty()) return refuse(defect);
  if (header.type != kTypeStop) {
    return refuse(recordText(header) + ": no stream is open, expected type 0");
  }
  rememberEnd(header);
  return {};
}

StreamSession::Answer StreamSession::takeOfFailedStream(const Header& header) {
  if (header.type == kTypeClose || header.type == kTypeStop) {
    rememberEnd(header);
  } else {
    counters_.add(Count::DroppedRecords);
  }
  return {};
}

/// A writer is still open after a stop, and after a close that failed (a failure reply, or no room
/// in time): it closes again, at the latest in its destructor. A reply to that would reach the next
/// producer.
StreamSession::Answer StreamSession::takeAfterEnd(const Header& header) {
  const bool isCloseAgain = header.type == kTypeClose && header.sequence > stream_.lastSequence;
  if (!isCloseAgain || !defectOf(header).empty()) return takeWithoutStream(header);
  rememberEnd(header);
  return {};
}

void StreamSession::rememberEnd(const Header& header) {
  state_ = State::Ended;
  stream_.lastSequence = header.sequence;
}

StreamSession::Answer StreamSession::takeInStream(const Entry& record) {
  const Header& header = record.header;
  const std::string defect = defectOf(header);
  if (!defect.empty()) return refuse(defect);
  const std::string outOfOrder = sequenceDefectOf(header);
  if (!outOfOrder.empty()) return refuse(outOfOrder);
  stream_.lastSequence = header.sequence;
  ++stream_.records;
  if (header.type == kTypeSegmentData) return takeData(record);
  finishSegment();
  if (header.type == kTypeClose) return takeClose(header);
  if (header.type == kTypeStop) return takeStop(header);
  return {};
}

/// Gaps are normal: a record that a writer refused has used up its number. There are two
/// exceptions. A stream that cut another one off may not have any: the other producer may be alive,
/// and what it still sends, even its close, would be taken for this stream's. And none may be right
/// before the close: a writer whose last write failed still closes in its destructor, with data
/// missing at the end.
std::string StreamSession::sequenceDefectOf(const Header& header) const {
  const std::uint64_t next = stream_.lastSequence + (stream_.records == 1 ? kStepAfterOpen : 1);
  if (stream_.cutOffAnother && header.sequence != next) {
    return recordText(header) + ": expected sequence " + std::to_string(next) +
           "; two producers on one queue?";
  }
  if (header.sequence <= stream_.lastSequence) {
    return recordText(header) + ": expected a sequence above " +
           std::to_string(stream_.lastSequence);
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
  stream_.segmentHasData = true;
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
  if (!stream_.segmentHasData) return;
  ++stream_.segments;
  stream_.segmentHasData = false;
}

StreamSession::Answer StreamSession::takeClose(const Header& header) {
  const StreamSummary whole = summary();
  try {
    sink_->complete(whole, stillFinishing_);
  } catch (const std::exception& error) {
    const Answer answer = fail(kStatusSinkFailed, error.what());
    rememberEnd(header);
    return answer;
  }
  counters_.add(Count::StreamsComplete);
  observer_.streamComplete(whole, placeOf(sink_.get()));
  sink_.reset();
  rememberEnd(header);
  return replyOf(0, Receipt{whole.bytes, whole.xxh128}.replyText());
}

StreamSession::Answer StreamSession::takeStop(const Header& header) {
  leaveIncomplete("stopped by the producer");
  rememberEnd(header);
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
  StreamSummary result;
  result.queue = queue_;
  result.opened = stream_.opened;
  result.closed = std::time(nullptr);
  result.bytes = taken.bytes;
  result.segments = stream_.segments;
  result.records = stream_.records;
  result.xxh128 = taken.xxh128;
  return result;
}

}  // namespace korvex::receiver
