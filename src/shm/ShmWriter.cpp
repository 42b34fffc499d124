#include "korvex/ShmWriter.h"

#include <algorithm>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <chrono>
#include <qmx/log.h>

#include "korvex/Status.h"
#include "queue/MessageQueue.h"
#include "queue/NoCancellation.h"
#include "shm/ReplyText.h"
#include "shm/ShmBatchInline.h"
#include "support/Text.h"
#include "support/Trace.h"

namespace korvex {
namespace {

constexpr unsigned int kMinTimeout = 1;
constexpr unsigned int kMaxTimeout = 86400;
constexpr unsigned int kSendPriority = 1;

/// A daemon makes a queue in an instant; one that stays half-made for longer was left by a dead
/// daemon.
constexpr std::chrono::seconds kLongestOpening{5};
constexpr int kNoMessageCode = -1;

// The receiving process, as the timeout's text names it.
const std::string KorvexdProcessName = "korvexd";

std::uint32_t low32(std::uint64_t value) { return static_cast<std::uint32_t>(value); }

/// Stores a value only if it changed. Most records repeat most of the header, and a read that finds
/// its value costs less than a store, on which the wide loads that follow would stall.
template <typename Value, typename Other>
void storeIfOther(Value& place, Other other) noexcept {
  const Value value = other;
  if (__builtin_expect(place != value, 0)) place = value;
}

/// The time `timeout` seconds after the current whole second of UTC. Truncating to the second makes
/// a wait up to one second shorter than asked for, and the signed count puts the deadline for a
/// timeout above 2147483647 in the past; deadlines here have always been counted this way.
///
/// Returned on the steady clock, so that setting the system clock does not move it.
MessageQueue::Clock::time_point deadlineAfter(unsigned int timeout) {
  namespace time = boost::posix_time;
  const time::ptime deadline =
      time::second_clock::universal_time() + time::seconds(static_cast<std::int32_t>(timeout));
  const time::time_duration left = deadline - time::microsec_clock::universal_time();
  return MessageQueue::Clock::now() + std::chrono::microseconds(left.total_microseconds());
}

}  // namespace

void validateTimeout(unsigned int timeout) {
  if (timeout < kMinTimeout) {
    throwError(kStatusInvalidArgument, "Invalid timeout, specified value ", timeout,
               " was less than minimum allowed value of ", kMinTimeout);
  }
  if (timeout > kMaxTimeout) {
    throwError(kStatusInvalidArgument, "Invalid timeout, specified value ", timeout,
               " was more than maximum allowed value of ", kMaxTimeout);
  }
}

std::string getMessageQueueResponseName(const std::string& msgQueueName) {
  return msgQueueName + "Response";
}

ShmWriter::ShmWriter(const std::string& streamName, const std::string& msgQueueName,
                     unsigned int timeout, unsigned int stopTimeout, bool perfBenchmarkEnabled)
    : ChannelWriter(streamName),
      msgQueueName_(msgQueueName),
      timeout_(timeout),
      stopTimeout_(stopTimeout),
      perfBenchmarkEnabled_(perfBenchmarkEnabled),
      lastHeaderType_(kTypeStop),
      firstSegment_(true),
      lastSegState_(KORVEX_SEG_STATE_LIMITED),
      segState_(KORVEX_SEG_STATE_LIMITED),
      segAlgParam1_(0),
      segAlgParam2_(0),
      segAlgParam3_(0) {
  const AutoTrace scope("ShmWriter");
  validateTimeout(timeout);
  const auto deadline =
      MessageQueue::Clock::now() + std::min(std::chrono::seconds(timeout), kLongestOpening);
  trace("%s: opening send message queue", "ShmWriter");
  sendQueue_ = std::make_unique<MessageQueue>(msgQueueName_, deadline);
  trace("%s: opening message response queue", "ShmWriter");
  responseQueue_ =
      std::make_unique<MessageQueue>(getMessageQueueResponseName(msgQueueName_), deadline);
  trace("%s: creating shm batch buffer", "ShmWriter");
  batch_ = std::make_unique<ShmBatch>(sendQueue_->maxMessageSize());
}

ShmWriter::~ShmWriter() {
  const NoCancellation noCancellation;
  const AutoTrace scope("~ShmWriter");
  if (!isOpen) return;
  try {
    ShmWriter::close();
  } catch (...) {
    // No one is left to report it to: destruction must go on.
  }
}

void ShmWriter::open() {
  const AutoTrace scope("open");
  if (isOpen) return;
  segmentHeader_.type = kTypeOpen;
  segmentHeader_.len = 0;
  segmentHeader_.sequence = 0;
  segmentHeader_.segmentCount = 0;
  segmentHeader_.segmentEmpty = 1;
  segmentHeader_.segState = 0;
  // Parameters 1 and 3 keep the previous stream's values; readers rely on the second only.
  segmentHeader_.algParam2 = 0;
  trace("ShmWriter:open: korvex msgQueueName is %s ", msgQueueName_.c_str());
  write_data(&segmentHeader_, nullptr, timeout_, true);
  // Incremented after the write, unlike for every other record: the open record carries 0, the next
  // one 2, and no record ever carries 1.
  ++segmentHeader_.sequence;
  isOpen = true;
}

void ShmWriter::close() {
  const AutoTrace scope("close");
  if (!isOpen) return;
  writeFinalRecord(kTypeClose, timeout_);
  isOpen = false;
}

void ShmWriter::stop(bool useStopTimeout) {
  const AutoTrace scope("stop");
  // Open or not, and without closing: a stop may be the last thing that a failing producer can
  // send.
  writeFinalRecord(kTypeStop, useStopTimeout ? stopTimeout_ : timeout_);
}

void ShmWriter::writeFinalRecord(std::uint32_t type, unsigned int timeout) {
  ++segmentHeader_.sequence;
  segmentHeader_.type = type;
  segmentHeader_.len = 0;
  fillAlgorithm();
  write_data(&segmentHeader_, nullptr, timeout, true);
  finishSegment();
}

inline void ShmWriter::fillAlgorithm() {
  storeIfOther(segmentHeader_.segState, static_cast<std::uint32_t>(segState_));
  storeIfOther(segmentHeader_.algParam1, low32(segAlgParam1_));
  storeIfOther(segmentHeader_.algParam2, low32(segAlgParam2_));
  storeIfOther(segmentHeader_.algParam3, low32(segAlgParam3_));
}

/// Counts the segment that a record has just ended, if it had data.
void ShmWriter::finishSegment() {
  if (segmentHeader_.segmentEmpty != 0) return;
  ++segmentHeader_.segmentCount;
  segmentHeader_.segmentEmpty = 1;
}

void ShmWriter::setSegmentAlg(korvex_seg_state_t state, unsigned long param1, unsigned long param2,
                              unsigned long param3) {
  segState_ = state;
  segAlgParam1_ = param1;
  segAlgParam2_ = param2;
  segAlgParam3_ = param3;
}

inline void ShmWriter::prepareSegment(std::uint32_t length) {
  fillAlgorithm();
  ++segmentHeader_.sequence;
  storeIfOther(segmentHeader_.type, kTypeSegmentData);
  storeIfOther(segmentHeader_.len, length);
  if (length != 0) storeIfOther(segmentHeader_.segmentEmpty, 0U);
}

/// Whether a segment only needs to be packed: no error, no send, no special case.
inline bool ShmWriter::isOrdinary(const unsigned char* data, std::uint32_t length) const {
  const bool isLimited = segState_ == KORVEX_SEG_STATE_LIMITED;
  return isOpen && (isLimited || segState_ == KORVEX_SEG_STATE_UNLIMITED) && firstSegment_ &&
         !perfBenchmarkEnabled_ && (length <= MAX_SEGMENT_SIZE || !isLimited) && data != nullptr &&
         length != 0 && batch_->hasRoom(length);
}

/// The fast path, for what producers nearly always do. A short record costs as much as its stores,
/// so there are few beside those into the batch, and no call for which registers would have to be
/// saved.
void ShmWriter::writeSegment(const unsigned char* data, unsigned long length) {
  const std::uint32_t cut = low32(length);
  if (!isKnownUntraced() || !isOrdinary(data, cut)) return writeSegmentInFull(data, length);
  prepareSegment(cut);
  storeIfOther(lastSegState_, segState_);
  if (!isCopiedInPlace(cut)) return packSegment(data);
  batch_->put(segmentHeader_, data, cut);
  storeIfOther(lastHeaderType_, kTypeSegmentData);
}

/// The end of the fast path when the copy is a call.
void ShmWriter::packSegment(const unsigned char* data) noexcept {
  batch_->put(segmentHeader_, data, segmentHeader_.len);
  storeIfOther(lastHeaderType_, kTypeSegmentData);
}

void ShmWriter::writeSegmentInFull(const unsigned char* data, unsigned long length) {
  const AutoTrace scope("writeSegment");
  if (!isOpen) refuseClosed();
  if (segState_ != KORVEX_SEG_STATE_LIMITED && segState_ != KORVEX_SEG_STATE_UNLIMITED) {
    refuseAlgorithm();
  }
  // Nothing ever clears firstSegment_, so streams may mix algorithms and the refusal is
  // unreachable. Daemons have come to accept mixed streams, so the flag and the check stay as they
  // are.
  if (firstSegment_) {
    lastSegState_ = segState_;
  } else if (segState_ != lastSegState_) {
    refuseMixedAlgorithms();
  }
  prepareSegment(low32(length));
  ShmWriter::write_data(&segmentHeader_, data, timeout_, false);
}

void ShmWriter::refuseClosed() const {
  throwError(kStatusWrongState, "Could not write segment data because ShmWriter is not open");
}

void ShmWriter::refuseAlgorithm() const {
  throwError(kStatusWrongState,
             "Could not write segment data because wrong algorithm has been set");
}

void ShmWriter::refuseMixedAlgorithms() const {
  throwError(kStatusDoesNotFit, "Could not write segment data for sequence ",
             segmentHeader_.sequence + 1, " because segment states are not homogeneous (",
             "last state=", static_cast<std::int32_t>(lastSegState_),
             ", current state=", static_cast<std::int32_t>(segState_), ")");
}

void ShmWriter::endSegment() {
  const AutoTrace scope("endSegment");
  if (!isOpen) {
    throwError(kStatusWrongState, "Could not end segment data because ShmWriter is not open");
  }
  // However the last record was written: a segment end from write_data() counts too.
  if (lastHeaderType_ == kTypeSegmentEnd) {
    trace("%s: ignoring redundant %u header", "endSegment", kTypeSegmentEnd);
    return;
  }
  fillAlgorithm();
  ++segmentHeader_.sequence;
  segmentHeader_.type = kTypeSegmentEnd;
  segmentHeader_.len = 0;
  write_data(&segmentHeader_, nullptr, timeout_, false);
  finishSegment();
}

void ShmWriter::write_data(const qmx_shm_message_t* header, const unsigned char* data,
                           unsigned int timeout, bool flush) {
  const AutoTrace scope("write_data");
  trace("%s: write header.type =%d, len=%d, timeout=%us", "write_data", header->type, header->len,
        timeout);
  // Checked before the benchmark switch: a measured producer must fail where a real one would.
  if (header->len > MAX_SEGMENT_SIZE && header->segState != KORVEX_SEG_STATE_UNLIMITED) {
    refuseOversized(*header);
  }
  if (perfBenchmarkEnabled_) {
    WarningA(kNoMessageCode,
             "%s: KORVEX_PERF_BENCHMARK_ENABLED is set to 1. This backup will fail. Dumping data..",
             "write_data");
    return;
  }
  // Builds no Entry: copying the header again costs as much as packing it.
  if (!batch_->hasRoom(header->len)) makeRoom(*header, timeout);
  batch_->append(*header, data);
  lastHeaderType_ = header->type;
  if (flush) flush_shm_buffer(timeout);
}

void ShmWriter::refuseOversized(const qmx_shm_message_t& header) const {
  throwError(kStatusTooLarge, "Segment too large error.  Received segment of size ", header.len,
             " bytes, but the maximum allowed segment size is ", MAX_SEGMENT_SIZE, " bytes");
}

/// Sends the batch, even an empty one: by the time a record is refused as too large for any batch,
/// everything before it has been sent.
void ShmWriter::makeRoom(const qmx_shm_message_t& header, unsigned int timeout) {
  flush_shm_buffer(timeout);
  if (batch_->hasRoom(header.len)) return;
  throwError(kStatusDoesNotFit, "Could not fit header (type=", header.type, ") with data length ",
             header.len, " into the batch, even after batch has been flushed");
}

void ShmWriter::flush_shm_buffer(unsigned int timeout) {
  trace("%s: Sending shm batch of %u", "flush_shm_buffer", batch_->getNumEntries());
  sendBatch(timeout);
  batch_->clear();
  raiseReply();
}

void ShmWriter::sendBatch(unsigned int timeout) {
  const auto deadline = deadlineAfter(timeout);
  if (sendQueue_->sendBefore(batch_->getRaw(), batch_->getRawSize(), kSendPriority, deadline))
    return;
  throwError(kStatusTimedOut, "Timed out after waiting ", timeout, "s to send data to ",
             KorvexdProcessName, name.empty() ? "" : " on stream ", name);
}

/// Takes at most one reply. It may belong to an earlier batch: the daemon answers at its own pace.
void ShmWriter::raiseReply() {
  // A reply may be shorter than the struct; the missing bytes must read as zero, not as the text of
  // an earlier reply. If there is no reply, the last one stays.
  qmx_shm_response_t received;
  std::size_t size = 0;
  // While the lock is taken there is no reply: the batch was sent, and the next flush takes the
  // reply.
  if (responseQueue_->tryReceive(&received, sizeof received, size) != MessageQueue::Outcome::Done) {
    return;
  }
  response_ = received;
  if (response_.status == 0) return;
  throw Ov_ErrnoException(response_.status, replyText(response_), "");
}

}  // namespace korvex
