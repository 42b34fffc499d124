#ifndef KORVEX_RECEIVER_STREAM_SESSION_H
#define KORVEX_RECEIVER_STREAM_SESSION_H

#include <chrono>
#include <cstdint>
#include <korvex/ShmBatch.h>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "korvex/receiver/Counters.h"
#include "korvex/receiver/Observer.h"
#include "korvex/receiver/Sink.h"
#include "korvex/receiver/StreamDigest.h"
#include "stream/Reply.h"

namespace korvex::receiver {

/// Follows the streams of one queue, record by record, and passes their data to sinks.
///
/// A stream is an open record, segment-data and segment-end records, then a close or a stop. It is
/// complete only when its close came and everything before it was taken. Any other end leaves it
/// incomplete. A failure is reported to the producer once; later records of that stream are dropped
/// and counted.
///
/// Never throws for what a producer or a sink does. Used by one thread.
class StreamSession {
 public:
  /// The reply for the producer, if any.
  using Answer = std::optional<Reply>;

  /// `counters` and `observer` outlive the session. `stillFinishing` is for sinks that take long to
  /// finish.
  StreamSession(
      std::string queue, SinkFactory openSink, Counters& counters, Observer& observer,
      StillFinishing stillFinishing = [] { return true; });

  /// Ends an open stream as incomplete.
  ~StreamSession();
  StreamSession(const StreamSession&) = delete;
  StreamSession& operator=(const StreamSession&) = delete;

  bool isOpen() const noexcept { return state_ == State::Open; }

  /// Where the data of later streams goes.
  void openWith(SinkFactory openSink) { openSink_ = std::move(openSink); }

  /// Takes the next record.
  Answer take(const ShmBatch::Entry& record);

  /// A batch could not be read, so an open stream misses records.
  Answer takeDamage(const std::string& defect);

  /// Nothing arrives at the moment: checks that the sink of an open stream still works.
  Answer checkSink();

  /// Nothing arrived for so long that an open stream fails.
  Answer takeSilence(std::chrono::seconds silence);

  /// Ends an open stream as incomplete, for a reason outside of it.
  void end(Ending ending, const std::string& reason);

 private:
  enum class State {
    Idle,
    Open,
    Failed,  ///< the rest of the stream is dropped
    Ended    ///< closed or stopped; its producer may close again
  };

  /// What is known of the stream that is open, or was open last.
  struct Stream {
    std::time_t opened = 0;
    std::uint64_t lastSequence = 0;
    std::uint64_t segments = 0;
    std::uint64_t records = 1;  ///< the open record is one
    bool segmentHasData = false;
    bool cutOffAnother = false;  ///< the stream before may still be sending
  };

  Answer takeOpen(const qmx_shm_message_t& header);
  Answer takeWithoutStream(const qmx_shm_message_t& header);
  Answer takeOfFailedStream(const qmx_shm_message_t& header);
  Answer takeAfterEnd(const qmx_shm_message_t& header);
  Answer takeInStream(const ShmBatch::Entry& record);
  std::string sequenceDefectOf(const qmx_shm_message_t& header) const;
  Answer takeData(const ShmBatch::Entry& record);
  Answer takeClose(const qmx_shm_message_t& header);
  Answer takeStop(const qmx_shm_message_t& header);
  Answer refuse(const std::string& text);
  Answer fail(Ending ending, const std::string& text);
  void rememberEnd(const qmx_shm_message_t& header);
  void startStream(const qmx_shm_message_t& header, bool cutsOffAnother);
  void finishSegment();
  void leaveIncomplete(Ending ending, const std::string& reason);
  void abandonSink(const StreamSummary& summary, const std::string& reason);
  StreamSummary summary(Ending ending) const;

  const std::string queue_;
  SinkFactory openSink_;
  Counters& counters_;
  Observer& observer_;
  const StillFinishing stillFinishing_;
  State state_ = State::Idle;
  std::unique_ptr<Sink> sink_;
  StreamDigest digest_;
  Stream stream_;
};

}  // namespace korvex::receiver

#endif
