#include "stream/StreamSession.h"

#include <cassert>
#include <exception>
#include <stdexcept>
#include <utility>

#include "korvex/Status.h"
#include "stream/ErrorText.h"

namespace korvex::receiver {
namespace {

/// No record carries the number after the open record's.
constexpr std::uint64_t kStepAfterOpen = 2;

std::string recordText(const Record& record) {
  return "record type " + std::to_string(record.type) + " sequence " +
         std::to_string(record.sequence);
}

/// What is wrong with a record regardless of those before it; empty if nothing is. Data on a record
/// that cannot carry any is refused, because it would be lost silently.
std::string defectOf(const Record& record) {
  if (record.type > kTypeStop) return recordText(record) + ": unknown type, expected 0 to 4";
  if (record.type != kTypeSegmentData && record.size != 0) {
    return recordText(record) + ": found " + std::to_string(record.size) +
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

StreamSession::~StreamSession() { end(Ending::ReceiverEnded, "abandoned"); }

StreamSession::Answer StreamSession::take(const Record& record) {
  assert(gatheredRecords_ == 0);
  counters_.add(Count::Records);
  if (record.type == kTypeOpen) return takeOpen(record);
  switch (state_) {
    case State::Idle:
      return takeWithoutStream(record);
    case State::Failed:
      return takeOfFailedStream(record);
    case State::Ended:
      return takeAfterEnd(record);
    case State::Open:
      break;
  }
  return takeInStream(record);
}

StreamSession::Answer StreamSession::takeOpen(const Record& record) {
  // The producer of the open stream is gone. No reply: it would reach the new producer.
  const bool cutsOffAnother = state_ == State::Open;
  end(Ending::CutOff, "a new stream was opened before its close");
  const std::string defect = defectOf(record);
  if (!defect.empty()) return refuse(defect);
  startStream(record, cutsOffAnother);
  try {
    sink_ = openSink_(queue_, stream_.opened);
    if (sink_ == nullptr) throw std::logic_error("the daemon made no sink for the stream");
  } catch (const std::exception& error) {
    return fail(Ending::SinkFailed, error.what());
  }
  observer_.streamOpened(placeOf(sink_.get()));
  return {};
}

void StreamSession::startStream(const Record& record, bool cutsOffAnother) {
  counters_.add(Count::StreamsOpened);
  state_ = State::Open;
  digest_.reset();
  stream_ = Stream();
  stream_.opened = std::time(nullptr);
  stream_.lastSequence = record.sequence;
  stream_.cutOffAnother = cutsOffAnother;
}

/// A stop may come without a stream.
StreamSession::Answer StreamSession::takeWithoutStream(const Record& record) {
  const std::string defect = defectOf(record);
  if (!defect.empty()) return refuse(defect);
  if (record.type != kTypeStop) {
    return refuse(recordText(record) + ": no stream is open, expected type 0");
  }
  rememberEnd(record);
  return {};
}

StreamSession::Answer StreamSession::takeOfFailedStream(const Record& record) {
  if (record.type == kTypeClose || record.type == kTypeStop) {
    rememberEnd(record);
  } else {
    counters_.add(Count::DroppedRecords);
  }
  return {};
}

/// A writer is still open after a stop, and after a close that failed (a failure reply, or no room
/// in time): it closes again, at the latest in its destructor. A reply to that would reach the next
/// producer.
StreamSession::Answer StreamSession::takeAfterEnd(const Record& record) {
  const bool isCloseAgain = record.type == kTypeClose && record.sequence > stream_.lastSequence;
  if (!isCloseAgain || !defectOf(record).empty()) return takeWithoutStream(record);
  rememberEnd(record);
  return {};
}

void StreamSession::rememberEnd(const Record& record) {
  state_ = State::Ended;
  stream_.lastSequence = record.sequence;
}

StreamSession::Answer StreamSession::takeInStream(const Record& record) {
  const std::string defect = defectOf(record);
  if (!defect.empty()) return refuse(defect);
  const std::string outOfOrder = sequenceDefectOf(record);
  if (!outOfOrder.empty()) return refuse(outOfOrder);
  stream_.lastSequence = record.sequence;
  ++stream_.records;
  if (record.type == kTypeSegmentData) return passOn(record.data, record.size);
  finishSegment();
  if (record.type == kTypeClose) return takeClose(record);
  if (record.type == kTypeStop) return takeStop(record);
  return {};
}

/// Gaps are normal: a record that a writer refused has used up its number. There are two
/// exceptions. A stream that cut another one off may not have any: the other producer may be alive,
/// and what it still sends, even its close, would be taken for this stream's. And none may be right
/// before the close: a writer whose last write failed still closes in its destructor, with data
/// missing at the end.
std::string StreamSession::sequenceDefectOf(const Record& record) const {
  const std::uint64_t next = stream_.lastSequence + (stream_.records == 1 ? kStepAfterOpen : 1);
  if (stream_.cutOffAnother && record.sequence != next) {
    return recordText(record) + ": expected sequence " + std::to_string(next) +
           "; two producers on one queue?";
  }
  if (record.sequence <= stream_.lastSequence) {
    return recordText(record) + ": expected a sequence above " +
           std::to_string(stream_.lastSequence);
  }
  if (record.type == kTypeClose && record.sequence != next) {
    return recordText(record) + ": expected sequence " + std::to_string(next) +
           "; the last record before the close is missing";
  }
  return "";
}

StreamSession::Answer StreamSession::passOn(const unsigned char* data, std::size_t size) {
  if (size == 0) return {};
  stream_.segmentHasData = true;
  try {
    sink_->write(data, size);
  } catch (const std::exception& error) {
    return fail(Ending::SinkFailed, error.what());
  }
  digest_.add(data, size);
  counters_.add(Count::Bytes, size);
  return {};
}

StreamSession::Answer StreamSession::flush() {
  if (gatheredRecords_ == 0) return {};
  const std::uint64_t records = std::exchange(gatheredRecords_, 0);
  counters_.add(Count::Records, records);
  stream_.records += records;
  return passOn(gathered_.get(), std::exchange(gatheredSize_, 0));
}

void StreamSession::finishSegment() {
  if (!stream_.segmentHasData) return;
  ++stream_.segments;
  stream_.segmentHasData = false;
}

StreamSession::Answer StreamSession::takeClose(const Record& record) {
  const StreamSummary whole = summary(Ending::Complete);
  // Before the sink publishes anything: afterwards nothing may fail any more.
  const Reply receipt = replyOf(0, Receipt{whole.bytes, whole.xxh128}.replyText());
  try {
    sink_->complete(whole, stillFinishing_);
  } catch (const std::exception& error) {
    const Answer answer = fail(Ending::SinkFailed, error.what());
    rememberEnd(record);
    return answer;
  }
  counters_.add(Count::StreamsComplete);
  observer_.streamComplete(whole, placeOf(sink_.get()));
  sink_.reset();
  rememberEnd(record);
  return receipt;
}

StreamSession::Answer StreamSession::takeStop(const Record& record) {
  leaveIncomplete(summary(Ending::Stopped), "stopped by the producer");
  rememberEnd(record);
  return {};
}

StreamSession::Answer StreamSession::takeDamage(const std::string& defect) {
  assert(gatheredRecords_ == 0);
  if (state_ == State::Failed) return {};
  const std::string text = "damaged batch: " + defect;
  if (state_ == State::Open) return fail(Ending::Corrupt, text);
  return replyOf(kStatusCorrupt, text);
}

StreamSession::Answer StreamSession::checkSink() {
  if (state_ != State::Open) return {};
  try {
    sink_->check();
  } catch (const std::exception& error) {
    return fail(Ending::SinkFailed, error.what());
  }
  return {};
}

StreamSession::Answer StreamSession::takeSilence(std::chrono::seconds silence) {
  if (state_ != State::Open) return {};
  return fail(Ending::Silent, "no batch for " + std::to_string(silence.count()) + " seconds");
}

/// Drops a record that breaks the protocol, and with it the stream.
StreamSession::Answer StreamSession::refuse(const std::string& text) {
  counters_.add(Count::DroppedRecords);
  return fail(Ending::Corrupt, text);
}

StreamSession::Answer StreamSession::fail(Ending ending, const std::string& text) {
  if (state_ == State::Open) {
    leaveIncomplete(summary(ending), text);
  } else {
    observer_.recordRefused(text);
  }
  state_ = State::Failed;
  return replyOf(ending == Ending::Corrupt ? kStatusCorrupt : kStatusSinkFailed, text);
}

void StreamSession::end(Ending ending, const char* what, const std::string& details) noexcept {
  assert(gatheredRecords_ == 0);
  if (state_ == State::Open) {
    try {
      leaveIncomplete(summary(ending), what + details);
    } catch (const std::exception&) {
      leaveIncomplete(summaryWithoutMemory(ending), "out of memory");  // short enough to take none
    }
  }
  state_ = State::Idle;
}

void StreamSession::leaveIncomplete(const StreamSummary& taken,
                                    const std::string& reason) noexcept {
  counters_.add(Count::StreamsIncomplete);
  if (sink_ != nullptr) abandonSink(taken, reason);
  observer_.streamIncomplete(taken, reason, placeOf(sink_.get()));
  sink_.reset();
}

void StreamSession::abandonSink(const StreamSummary& summary, const std::string& reason) noexcept {
  try {
    sink_->abandon(summary, reason);
  } catch (const std::exception& error) {
    observer_.abandoningFailed(textOf(error));
  }
}

StreamSummary StreamSession::summary(Ending ending) const {
  StreamSummary result = figures(ending);
  addTexts(result);
  return result;
}

/// With the texts that there is memory for.
StreamSummary StreamSession::summaryWithoutMemory(Ending ending) const noexcept {
  StreamSummary result = figures(ending);
  try {
    addTexts(result);
  } catch (const std::exception&) {
    // Both are for people.
  }
  return result;
}

void StreamSession::addTexts(StreamSummary& summary) const {
  summary.queue = queue_;
  summary.xxh128 = digest_.expected().xxh128;
}

StreamSummary StreamSession::figures(Ending ending) const noexcept {
  StreamSummary result;
  result.opened = stream_.opened;
  result.closed = std::time(nullptr);
  result.bytes = digest_.bytes();
  result.segments = stream_.segments;
  result.records = stream_.records;
  result.ending = ending;
  return result;
}

}  // namespace korvex::receiver
