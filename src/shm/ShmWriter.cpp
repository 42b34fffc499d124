#include "korvex/ShmWriter.h"

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <algorithm>
#include <chrono>

#include <qmx/log.h>

#include "korvex/Status.h"
#include "shm/BatchAppend.h"
#include "shm/MessageQueue.h"
#include "shm/ReplyText.h"
#include "support/NoCancellation.h"
#include "support/Text.h"
#include "support/Trace.h"

namespace korvex {
namespace {

constexpr std::uint32_t kTypeOpen = 0;
constexpr std::uint32_t kTypeSegmentData = 1;
constexpr std::uint32_t kTypeSegmentEnd = 2;
constexpr std::uint32_t kTypeClose = 3;
constexpr std::uint32_t kTypeStop = 4;

constexpr unsigned int kMinTimeout = 1;
constexpr unsigned int kMaxTimeout = 86400;
constexpr unsigned int kSendPriority = 1;

/// A daemon makes a queue in an instant; one that is half-made for longer was left by a dead one.
constexpr std::chrono::seconds kLongestOpening{5};
constexpr int kNoMessageCode = -1;

// The process that takes the batches, as the timeout's text names it.
const std::string KorvexdProcessName = "korvexd";

std::uint32_t low32(std::uint64_t value) { return static_cast<std::uint32_t>(value); }

template <typename Value>
void storeIfOther(Value& place, Value value) noexcept {
  if (__builtin_expect(place != value, 0)) place = value;
}

/// The moment `timeout` seconds after the current whole second of UTC. The cut to the second makes
/// a wait up to one second shorter than asked for, and the signed count makes a timeout above
/// 2147483647 a deadline in the past; both are how deadlines here have always been counted.
///
/// Told on the steady clock, so that a clock that is set meanwhile does not move it.
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
  const AutoTrace trace("ShmWriter");
  validateTimeout(timeout);
  const auto deadline =
      MessageQueue::Clock::now() + std::min(std::chrono::seconds(timeout), kLongestOpening);
  if (isTracing()) __TraceA("%s: opening send message queue", "ShmWriter");
  sendQueue_ = std::make_unique<MessageQueue>(msgQueueName_, deadline);
  if (isTracing()) __TraceA("%s: opening message response queue", "ShmWriter");
  responseQueue_ =
      std::make_unique<MessageQueue>(getMessageQueueResponseName(msgQueueName_), deadline);
  if (isTracing()) __TraceA("%s: creating shm batch buffer", "ShmWriter");
  batch_ = std::make_unique<ShmBatch>(sendQueue_->maxMessageSize());
}

ShmWriter::~ShmWriter() {
  const NoCancellation noCancellation;
  const AutoTrace trace("~ShmWriter");
  if (!isOpen) return;
  try {
    ShmWriter::close();
  } catch (...) {
    // Nobody is left to tell: destruction must go on.
  }
}

void ShmWriter::open() {
  const AutoTrace trace("open");
  if (isOpen) return;
  segmentHeader_.type = kTypeOpen;
  segmentHeader_.len = 0;
  segmentHeader_.sequence = 0;
  segmentHeader_.segmentCount = 0;
  segmentHeader_.segmentEmpty = 1;
  segmentHeader_.segState = 0;
  // Parameters 1 and 3 keep what the stream before left in them; readers rely on the second only.
  segmentHeader_.algParam2 = 0;
  if (isTracing()) {
    __TraceA("ShmWriter:open: korvex msgQueueName is %s ", msgQueueName_.c_str());
  }
  write_data(&segmentHeader_, nullptr, timeout_, true);
  // After the write, unlike every other record: the open record carries 0, the next one 2, and no
  // record ever carries 1.
  ++segmentHeader_.sequence;
  isOpen = true;
}

void ShmWriter::close() {
  const AutoTrace trace("close");
  if (!isOpen) return;
  writeFinalRecord(kTypeClose, timeout_);
  isOpen = false;
}

void ShmWriter::stop(bool useStopTimeout) {
  const AutoTrace trace("stop");
  // Open or not, and without closing: a stop may be all that a failing producer still gets out.
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

/// Whether a segment needs nothing but to be packed.
inline bool ShmWriter::isOrdinary(const unsigned char* data, std::uint32_t length) const {
  const bool isLimited = segState_ == KORVEX_SEG_STATE_LIMITED;
  return isOpen && (isLimited || segState_ == KORVEX_SEG_STATE_UNLIMITED) && firstSegment_ &&
         !perfBenchmarkEnabled_ && (length <= MAX_SEGMENT_SIZE || !isLimited) && data != nullptr &&
         length != 0 && batch_->hasRoom(length);
}

/// The short way for what producers do nearly always: stores into the batch are what a short record
/// costs, so that there are few others, and no call that registers would have to be saved for.
void ShmWriter::writeSegment(const unsigned char* data, unsigned long length) {
  const std::uint32_t cut = low32(length);
  if (!isKnownUntraced() || !isOrdinary(data, cut)) return writeSegmentInFull(data, length);
  prepareSegment(cut);
  storeIfOther(lastSegState_, segState_);
  if (!isCopiedInPlace(cut)) return packSegment(data);
  batch_->put(segmentHeader_, data, cut);
  storeIfOther(lastHeaderType_, kTypeSegmentData);
}

/// The end of the short way when the copy is a call.
void ShmWriter::packSegment(const unsigned char* data) noexcept {
  batch_->put(segmentHeader_, data, segmentHeader_.len);
  storeIfOther(lastHeaderType_, kTypeSegmentData);
}

void ShmWriter::writeSegmentInFull(const unsigned char* data, unsigned long length) {
  const AutoTrace trace("writeSegment");
  if (!isOpen) refuseClosed();
  if (segState_ != KORVEX_SEG_STATE_LIMITED && segState_ != KORVEX_SEG_STATE_UNLIMITED) {
    refuseAlgorithm();
  }
  // Nothing ever clears firstSegment, so streams may mix algorithms and the refusal is out of
  // reach. Daemons have come to accept mixed streams; both the flag and the test stay as they are.
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
  const AutoTrace trace("endSegment");
  if (!isOpen) {
    throwError(kStatusWrongState, "Could not end segment data because ShmWriter is not open");
  }
  // Whoever wrote the last record: a segment end written directly counts as well.
  if (lastHeaderType_ == kTypeSegmentEnd) {
    if (isTracing()) __TraceA("%s: ignoring redundant %u header", "endSegment", kTypeSegmentEnd);
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
  const AutoTrace trace("write_data");
  if (isTracing()) {
    __TraceA("%s: write header.type =%d, len=%d, timeout=%us", "write_data", header->type,
             header->len, timeout);
  }
  // Before the benchmark switch: a measured producer must fail where a real one would.
  if (header->len > MAX_SEGMENT_SIZE && header->segState != KORVEX_SEG_STATE_UNLIMITED) {
    refuseOversized(*header);
  }
  if (perfBenchmarkEnabled_) {
    WarningA(kNoMessageCode,
             "%s: KORVEX_PERF_BENCHMARK_ENABLED is set to 1. This backup will fail. Dumping data..",
             "write_data");
    return;
  }
  // No Entry is built: copying the header once more costs as much as packing it.
  if (!batch_->hasRoom(header->len)) makeRoom(*header, timeout);
  batch_->append(*header, data);
  lastHeaderType_ = header->type;
  if (flush) flush_shm_buffer(timeout);
}

void ShmWriter::refuseOversized(const qmx_shm_message_t& header) const {
  throwError(kStatusTooLarge, "Segment too large error.  Received segment of size ", header.len,
             " bytes, but the maximum allowed segment size is ", MAX_SEGMENT_SIZE, " bytes");
}

/// Sends the batch, also an empty one, so that a record too large for any batch is preceded by
/// everything before it.
void ShmWriter::makeRoom(const qmx_shm_message_t& header, unsigned int timeout) {
  flush_shm_buffer(timeout);
  if (batch_->hasRoom(header.len)) return;
  throwError(kStatusDoesNotFit, "Could not fit header (type=", header.type, ") with data length ",
             header.len, " into the batch, even after batch has been flushed");
}

void ShmWriter::flush_shm_buffer(unsigned int timeout) {
  if (isTracing()) {
    __TraceA("%s: Sending shm batch of %u", "flush_shm_buffer", batch_->getNumEntries());
  }
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
  // A reply may be shorter than the record; what is missing must read as zero, not as the text of
  // an earlier reply. And when none is there the last one stays.
  qmx_shm_response_t received;
  std::size_t size = 0;
  // A lock that is taken is no reply: the batch is on its way, and the next flush finds the reply.
  if (responseQueue_->tryReceive(&received, sizeof received, size) != MessageQueue::Outcome::Done) {
    return;
  }
  response_ = received;
  if (response_.status == 0) return;
  throw Ov_ErrnoException(response_.status, replyText(response_), "");
}

}  // namespace korvex
