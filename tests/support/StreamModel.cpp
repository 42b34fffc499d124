#include "support/StreamModel.h"

#include <cstdio>
#include <xxhash.h>

#include "support/WireFormat.h"

namespace korvex::test {
namespace {

bool isSound(const StreamModel::Record& record) {
  return record.type <= kStop && (record.type == kData || record.size == 0);
}

}  // namespace

StreamModel::Answer StreamModel::take(const Record& record) {
  ++counts_.records;
  if (record.type == kOpen) return takeOpen(record);
  return state_ == State::Open ? takeInStream(record) : takeOutside(record);
}

StreamModel::Answer StreamModel::takeOpen(const Record& record) {
  cutOffAnother_ = state_ == State::Open;
  end();
  if (!isSound(record)) return refuse();
  ++counts_.opened;
  sequence_ = record.sequence;
  isFirst_ = true;
  if (fails(Step::Opening)) {
    ++counts_.incomplete;
    state_ = State::Failed;
    return Answer::SinkFailure;
  }
  state_ = State::Open;
  ++sinks_;
  hasSegment_ = false;
  present_ = {0, 0, 1};
  data_.clear();
  return Answer::None;
}

StreamModel::Answer StreamModel::takeInStream(const Record& record) {
  if (!isSound(record) || !isInOrder(record)) return refuse();
  sequence_ = record.sequence;
  isFirst_ = false;
  ++present_.records;
  if (record.type == kData) return takeData(record);
  finishSegment();
  if (record.type == kClose) return takeClose();
  if (record.type == kStop) leave(State::Ended);
  return Answer::None;
}

/// Gaps are fine, except those that could hide a missing record or another producer's.
bool StreamModel::isInOrder(const Record& record) const {
  if (record.sequence <= sequence_) return false;
  const bool mayLeaveGap = record.type != kClose && !cutOffAnother_;
  return mayLeaveGap || record.sequence == next();
}

StreamModel::Answer StreamModel::takeData(const Record& record) {
  if (record.size == 0) return Answer::None;
  hasSegment_ = true;
  if (fails(Step::Writing)) {
    leave(State::Failed);
    return Answer::SinkFailure;
  }
  data_.append(reinterpret_cast<const char*>(record.data), record.size);
  present_.bytes += record.size;
  counts_.bytes += record.size;
  return Answer::None;
}

StreamModel::Answer StreamModel::takeClose() {
  if (fails(Step::Completing)) {
    leave(State::Ended);
    return Answer::SinkFailure;
  }
  ++counts_.complete;
  lastSummary_ = present_;
  state_ = State::Ended;
  return Answer::Receipt;
}

/// The producer of a stream that failed or ended may stop or close, and close again, for as long as
/// its numbers grow.
StreamModel::Answer StreamModel::takeOutside(const Record& record) {
  const bool ends = record.type == kClose || record.type == kStop;
  if (state_ == State::Failed) {
    if (ends) endAt(record.sequence);
    if (!ends) ++counts_.dropped;
    return Answer::None;
  }
  const bool isAgain = state_ == State::Ended && record.sequence > sequence_;
  if (!isSound(record) || !ends || (record.type == kClose && !isAgain)) return refuse();
  endAt(record.sequence);
  return Answer::None;
}

StreamModel::Answer StreamModel::takeDamage() {
  if (state_ == State::Failed) return Answer::None;
  if (state_ == State::Open) leave(State::Failed);
  return Answer::Refusal;
}

void StreamModel::end() {
  if (state_ == State::Open) leave(State::Idle);
  state_ = State::Idle;
}

bool StreamModel::fails(Step step) {
  if (failing_ != step) return false;
  failing_ = Step::None;
  return true;
}

StreamModel::Answer StreamModel::refuse() {
  ++counts_.dropped;
  if (state_ == State::Open) leave(State::Failed);
  state_ = State::Failed;
  return Answer::Refusal;
}

/// The open stream ends before it is complete.
void StreamModel::leave(State next) {
  ++counts_.incomplete;
  lastSummary_ = present_;
  state_ = next;
}

void StreamModel::endAt(std::uint64_t sequence) {
  state_ = State::Ended;
  sequence_ = sequence;
  isFirst_ = false;
}

void StreamModel::finishSegment() {
  if (hasSegment_) ++present_.segments;
  hasSegment_ = false;
}

std::string StreamModel::receipt() const {
  const XXH128_hash_t digest = XXH3_128bits(data_.data(), data_.size());
  char text[128];
  const int size = std::snprintf(text, sizeof text, "stored bytes=%zu xxh128=%016llx%016llx",
                                 data_.size(), static_cast<unsigned long long>(digest.high64),
                                 static_cast<unsigned long long>(digest.low64));
  return {text, static_cast<std::size_t>(size)};
}

}  // namespace korvex::test
