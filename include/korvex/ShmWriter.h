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
/// Waiting for room on the send queue is the only place that blocks. Errors are Ov_ErrnoException
/// with an empty location: 15 when the queue stayed full for the timeout (the batch is kept, so a
/// later flush sends it), the daemon's own status and text when its reply carries one (the batch is
/// gone then), the others as each operation says. What the queue library throws (a missing, foreign
/// or broken queue) passes through as it is, derived from std::exception.
class KORVEX_EXPORT ShmWriter : public ChannelWriter {
 public:
  /// Opens `msgQueueName` and its response queue, whose name ends in "Response". A queue that its
  /// daemon is just creating is waited for, up to `timeout`. The batch gets the size of the send
  /// queue's largest message.
  ///
  /// Timeouts are in seconds. `timeout` must pass validateTimeout; `stopTimeout`, for stop(true),
  /// may be anything. With `perfBenchmarkEnabled` every record is dropped with a warning, to
  /// measure a producer alone.
  ShmWriter(const std::string& name, const std::string& msgQueueName, unsigned int timeout,
            unsigned int stopTimeout, bool perfBenchmarkEnabled);

  /// Closes the stream if it is open; an error of that is lost. To know, call close() yourself.
  ~ShmWriter() override;

  /// Sends the open record and starts numbering anew. Does nothing when open.
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

  /// Buffers one segment-data record with a copy of the data. Throws 44 when not open or with an
  /// unknown algorithm, else as write_data.
  void writeSegment(const unsigned char* data, unsigned long length) override;

  /// Buffers a segment-end record, unless the record before it was one. Throws 44 when not open.
  void endSegment() override;

  /// Buffers a record with a header of the caller's own, sends the batch first when it does not fit
  /// and afterwards when `flush` is set. `timeout`, in seconds, holds for each send.
  ///
  /// `header->len` bytes are copied from `data`. Throws 85 above MAX_SEGMENT_SIZE (unless the
  /// header's segState lifts that limit), 89 when the record does not even fit an empty batch, 9
  /// for announced data that is null.
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
