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
/// and stop record, is sent as one message on the daemon's send queue; after each, the writer takes
/// one reply from the response queue if there is one. Both queues must exist: the writer opens them
/// and never creates or removes any.
///
/// Use: construct, open(), then per segment one or more writeSegment() and an endSegment(), then
/// close(), or stop() if the stream failed. One thread at a time.
///
/// The destructor closes an open stream, and the daemon takes what it has by then as complete. On
/// an error path call stop() first: `catch (...) { writer.stop(true); throw; }`, or use a
/// StreamGuard.
///
/// What blocks: a send waits for room until its timeout, and up to 250 ms longer if only the
/// queue's lock is in the way; taking a reply waits for that queue's lock, up to 20 ms and rarely
/// 40; the constructor waits for its queues.
///
/// Deferred cancellation takes effect where a send or the constructor waits, and nowhere else if
/// the platform's log calls follow qmx/trace.h. The batch stays as it was, and sends from the
/// thread's destructors do not wait for room. A thread that is cancelled elsewhere waits in the
/// destructor as close() does.
///
/// Errors are Ov_ErrnoException with an empty location: status 15 if the queue stayed full until
/// the timeout (the batch is kept, so a later flush sends it), the daemon's own status and text if
/// its reply reports an error (the batch has been sent), others as each operation says. What the
/// queue library throws (a queue that is missing, inaccessible or broken) passes through unchanged,
/// derived from std::exception.
///
/// korvex/Status.h names the statuses. Catch by reference. The queue library's errors, by what():
/// - missing, forbidden or misnamed queue: std::strerror of ENOENT, EACCES, EINVAL and the like
/// - damaged, or not a queue: "the shared-memory object is not a sound message queue"
/// - damaged or in the middle of a change when it is opened: "the message queue's lock stayed
///   taken"
/// - a lock that a dead process broke: "boost::interprocess::lock_exception", in every call from
///   then on; the writer is no longer usable
///
/// A timeout counts from the start of the current second, so it may be up to one second short: 1
/// may expire at once. 0 and values from 2^31 up do not wait.
///
/// If open(), close(), stop() or write_data() with `flush` throws 15, its record is already in the
/// batch if it fitted: retry with flush_shm_buffer(), because repeating the call appends a second
/// record. If it did not fit, the attempt to make room timed out and the record is not in the
/// batch; a caller that must know which flushes first. All other calls send only to make room, so
/// after 15 their record is never in the batch; a segment has used up its sequence number even so.
///
/// A reply may belong to an earlier batch, so open() and close() may throw the daemon's error after
/// their own record was sent. open() then leaves the writer closed, close() leaves it open. The
/// stream has failed at the daemon: destroy the writer, do not retry.
///
/// A forked child shares its parent's streams. It must not use inherited writers and must end with
/// _exit() or exec: a destructor would close the parent's stream.
class KORVEX_EXPORT ShmWriter : public ChannelWriter {
 public:
  /// Opens `msgQueueName` and its response queue, the same name with "Response" appended. Waits for
  /// a queue that its daemon is still creating, for `timeout` but at most 5 seconds. The batch is
  /// as large as the send queue's largest message. Queue names have 1 to 247 characters after an
  /// optional leading slash, and no other slash; `name`, for error texts, may be anything.
  ///
  /// Timeouts are in seconds. `timeout` must pass validateTimeout; `stopTimeout`, for stop(true),
  /// may be anything. With `perfBenchmarkEnabled` every record is dropped with a warning, to
  /// measure a producer alone.
  ShmWriter(const std::string& name, const std::string& msgQueueName, unsigned int timeout,
            unsigned int stopTimeout, bool perfBenchmarkEnabled);

  /// Closes the stream if it is open, ignoring errors; call close() yourself to see them. After a
  /// close() that threw, it sends a second close record. Waits as close() does; not a cancellation
  /// point.
  ~ShmWriter() override;

  /// Sends the open record and starts numbering from 0. Does nothing if already open.
  void open() override;

  /// Sends what is buffered and a close record. Does nothing if not open; stays open if it throws.
  void close() override;

  /// Sends what is buffered and a stop record. Works whether the stream is open or not, and leaves
  /// it so. Waits up to the stop timeout or the ordinary one.
  void stop(bool useStopTimeout) override;

  /// Sets the algorithm and parameters for the next records; parameters are truncated to 32 bits.
  /// Nothing is checked here.
  void setSegmentAlg(korvex_seg_state_t state, unsigned long param1, unsigned long param2,
                     unsigned long param3) override;

  /// Buffers one segment-data record with a copy of the data, which may be null if `length` is 0.
  /// Lengths are truncated to 32 bits. Throws 44 if not open or if the algorithm is unknown,
  /// otherwise as write_data; then the record is not buffered, but its sequence number is used up.
  void writeSegment(const unsigned char* data, unsigned long length) override;

  /// Buffers a segment-end record, unless the record before it was one. Throws 44 if not open.
  void endSegment() override;

  /// Buffers a record with the caller's own header. Sends the batch first if the record does not
  /// fit, and afterwards if `flush` is set. `timeout`, in seconds, applies to each send.
  ///
  /// `header` must not be null; it is sent as it is, its magic unchecked. `header->len` bytes are
  /// copied from `data`, which may be null if that is 0. Throws 85 above MAX_SEGMENT_SIZE (unless
  /// the header's segState lifts that limit), 89 if the record does not fit even an empty batch, 9
  /// if it announces data but `data` is null.
  void write_data(const qmx_shm_message_t* header, const unsigned char* data, unsigned int timeout,
                  bool flush);

  /// Sends the batch, even an empty one, and takes one reply if there is one.
  void flush_shm_buffer(unsigned int timeout);

  /// The last reply received, even one with status 0; all zero before the first.
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

  // The order of the members is part of the binary interface; it also destroys the batch first,
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
