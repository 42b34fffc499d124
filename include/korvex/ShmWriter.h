#ifndef KORVEX_SHM_WRITER_H
#define KORVEX_SHM_WRITER_H

#include <cstdint>
#include <memory>
#include <string>

#include "korvex/Channel.h"
#include "korvex/Export.h"
#include "korvex/ShmBatch.h"
#include "korvex/ShmCommon.h"

namespace korvex {

class MessageQueue;

/// A producer's end of one stream to the daemon on this machine.
///
/// Records are packed into a batch in the writer's own memory. A full batch, and every open, close
/// and stop record, travels as one message over the daemon's send queue; after each, one reply is
/// picked up from the response queue if there is one. Both queues must exist: the writer opens them
/// and never creates or removes any.
///
/// Use: construct, open(), then per segment one or more writeSegment() and an endSegment(), then
/// close(), or stop() when the stream failed. One thread at a time.
///
/// The destructor closes an open stream, and the daemon takes what it has by then for complete. On
/// the way out of an error call stop() first: `catch (...) { writer.stop(true); throw; }`, or leave
/// it to a StreamGuard.
///
/// What blocks: a send, for room until its timeout, and up to 250 ms more when the queue's lock is
/// all that is in its way; the look for a reply, while that queue's lock is taken, for 20 ms and
/// rarely for 40; the constructor. A thread may be cancelled (deferred) where a send or the
/// constructor waits, and nowhere else as long as the platform's log calls keep to qmx/trace.h: the
/// batch stays as it was, and what the thread's destructors still send does not wait for room. A
/// thread that is cancelled elsewhere waits in the destructor as close() does.
///
/// Errors are Ov_ErrnoException with an empty location: 15 when the queue stayed full for the
/// timeout (the batch is kept, so a later flush sends it), the daemon's own status and text when
/// its reply carries one (the batch is gone then), the others as each operation says. What the
/// queue library throws (a missing, foreign or broken queue) passes through as it is, derived from
/// std::exception.
///
/// Statuses have names in korvex/Status.h. Catch by reference. What what() says of the queue
/// library's errors:
/// - absent, forbidden or misnamed: std::strerror of ENOENT, EACCES, EINVAL and the like
/// - damaged or no queue: "the shared-memory object is not a sound message queue"
/// - damaged or just being changed, while it is opened: "the message queue's lock stayed taken"
/// - a lock that a dead process broke: "boost::interprocess::lock_exception", in every call from
///   then on; the writer is of no more use
///
/// A timeout counts from the start of the current second, so it may be up to one second shorter: 1
/// may fail at once. 0 and everything from 2^31 up do not wait.
///
/// When open(), close(), stop() or write_data() with `flush` throws 15, its record is in the batch
/// if there was room for it: flush_shm_buffer() is the retry then, and the same call again appends
/// a second record. Without room, 15 came from making some, and the record is not there; a caller
/// that must know flushes first. All other calls send only to make room, so after 15 their record
/// is never there; a segment's number is spent all the same.
///
/// A reply may belong to an earlier batch, so open() and close() may throw the daemon's error after
/// their own record was sent. open() then leaves the writer closed, close() leaves it open. The
/// stream has failed at the daemon: destroy the writer instead of calling again.
///
/// A forked child shares its parent's streams. It must not use inherited writers and must end with
/// _exit() or exec: a destructor would close the parent's stream.
class KORVEX_EXPORT ShmWriter : public ChannelWriter {
 public:
  /// Opens `msgQueueName` and its response queue, whose name ends in "Response". A queue that its
  /// daemon is just creating is waited for, up to `timeout` or 5 seconds. The batch gets the size
  /// of the send queue's largest message. Queue names have 1 to 247 characters, behind a leading
  /// slash or none, and no other slash; `name`, for error texts, may be anything.
  ///
  /// Timeouts are in seconds. `timeout` must pass validateTimeout; `stopTimeout`, for stop(true),
  /// may be anything. With `perfBenchmarkEnabled` every record is dropped with a warning, to
  /// measure a producer alone.
  ShmWriter(const std::string& name, const std::string& msgQueueName, unsigned int timeout,
            unsigned int stopTimeout, bool perfBenchmarkEnabled);

  /// Closes the stream if it is open; an error of that is lost. To know, call close() yourself.
  /// After a close() that threw, it sends a second close record.
  /// Waits as close() does, and is not cancelled.
  ~ShmWriter() override;

  /// Sends the open record and starts numbering from 0. Does nothing when open.
  void open() override;

  /// Sends what is buffered and the close record. Does nothing when not open; stays open when the
  /// record cannot be sent.
  void close() override;

  /// Sends what is buffered and a stop record, open or not, and changes neither. Waits up to the
  /// stop timeout or the ordinary one.
  void stop(bool useStopTimeout) override;

  /// Sets the algorithm and parameters that the next records carry, the parameters cut to 32 bits.
  /// Nothing is checked here.
  void setSegmentAlg(korvex_seg_state_t state, unsigned long param1, unsigned long param2,
                     unsigned long param3) override;

  /// Buffers one segment-data record with a copy of the data, which may be null when `length` is 0.
  /// Lengths are cut to 32 bits. Throws 44 when not open or with an unknown algorithm, else as
  /// write_data; then the record is not buffered, but its number is spent.
  void writeSegment(const unsigned char* data, unsigned long length) override;

  /// Buffers a segment-end record, unless the record before it was one. Throws 44 when not open.
  void endSegment() override;

  /// Buffers a record with a header of the caller's own, sends the batch first when it does not fit
  /// and afterwards when `flush` is set. `timeout`, in seconds, holds for each send.
  ///
  /// `header` must not be null; it is sent as it is, its magic unseen. `header->len` bytes are
  /// copied from `data`, which may be null when that is 0. Throws 85 above MAX_SEGMENT_SIZE (unless
  /// the header's segState lifts that limit), 89 when the record does not even fit an empty batch,
  /// 9 for announced data that is null.
  void write_data(const qmx_shm_message_t* header, const unsigned char* data, unsigned int timeout,
                  bool flush);

  /// Sends the batch as it stands, also an empty one, and picks up one reply.
  void flush_shm_buffer(unsigned int timeout);

  /// The reply last received, also one with status 0; all zero before the first.
  const qmx_shm_response_t& getResponse() const { return response_; }

  /// MAX_SEGMENT_SIZE.
  static unsigned long getMaxSegmentSize() { return MAX_SEGMENT_SIZE; }

 private:
  KORVEX_NO_EXPORT void fillAlgorithm();
  KORVEX_NO_EXPORT void prepareSegment(std::uint32_t length);
  KORVEX_NO_EXPORT bool isOrdinary(const unsigned char* data, std::uint32_t length) const;
  KORVEX_NO_EXPORT void packSegment(const unsigned char* data) noexcept;
  KORVEX_NO_EXPORT void writeSegmentInFull(const unsigned char* data, unsigned long length);
  KORVEX_NO_EXPORT void writeFinalRecord(std::uint32_t type, unsigned int timeout);
  KORVEX_NO_EXPORT void finishSegment();
  [[noreturn]] KORVEX_NO_EXPORT void refuseOversized(const qmx_shm_message_t& header) const;
  [[noreturn]] KORVEX_NO_EXPORT void refuseClosed() const;
  [[noreturn]] KORVEX_NO_EXPORT void refuseAlgorithm() const;
  [[noreturn]] KORVEX_NO_EXPORT void refuseMixedAlgorithms() const;
  KORVEX_NO_EXPORT void makeRoom(const qmx_shm_message_t& header, unsigned int timeout);
  KORVEX_NO_EXPORT void sendBatch(unsigned int timeout);
  KORVEX_NO_EXPORT void raiseReply();

  // The order of the members is part of the binary interface; it also makes the batch go first,
  // then the response queue, then the send queue.
  std::string msgQueueName_;
  std::uint32_t timeout_;
  std::uint32_t stopTimeout_;
  bool perfBenchmarkEnabled_;
  qmx_shm_message_t segmentHeader_;
  qmx_shm_response_t response_;
  std::unique_ptr<MessageQueue> sendQueue_;
  std::unique_ptr<MessageQueue> responseQueue_;
  std::unique_ptr<ShmBatch> batch_;
  std::uint32_t lastHeaderType_;
  bool firstSegment_;
  korvex_seg_state_t lastSegState_;
  korvex_seg_state_t segState_;
  std::uint64_t segAlgParam1_;
  std::uint64_t segAlgParam2_;
  std::uint64_t segAlgParam3_;
};

/// Throws Ov_ErrnoException with status 9 unless 1 <= timeout <= 86400 (seconds, one day).
KORVEX_EXPORT void validateTimeout(unsigned int timeout);

/// The name of the response queue that belongs to a send queue.
KORVEX_EXPORT std::string getMessageQueueResponseName(const std::string& msgQueueName);

}  // namespace korvex

#endif
