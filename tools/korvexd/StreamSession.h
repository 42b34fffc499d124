#ifndef KORVEXD_STREAM_SESSION_H
#define KORVEXD_STREAM_SESSION_H

#include <korvex/ShmBatch.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "korvexd/QueueLog.h"
#include "korvexd/Reply.h"
#include "korvexd/Sink.h"
#include "korvexd/Stats.h"
#include "korvexd/Xxh128.h"

namespace korvexd {

/// Follows the streams of one queue, record by record, and hands their data to sinks.
///
/// A stream is an open record, segment-data and segment-end records, then a close or a stop. It is
/// complete only when its close came and everything before it was taken. Any other end leaves it
/// incomplete. After a failure the producer is told once, and what it still sends of that stream is
/// dropped and counted.
///
/// Never throws for what a producer or a sink does. Used by one thread.
class StreamSession {
 public:
  /// What the producer must be told, if anything.
  using Answer = std::optional<Reply>;

  /// `stats` and `log` outlive the session. `stillFinishing` is for sinks that take long to finish.
  StreamSession(
      std::string queue, SinkFactory openSink, Stats& stats, QueueLog& log,
      StillFinishing stillFinishing = [] { return true; });

  /// Ends an open stream as incomplete.
  ~StreamSession();
  StreamSession(const StreamSession&) = delete;
  StreamSession& operator=(const StreamSession&) = delete;

  /// Takes the next record.
  Answer take(const korvex::ShmBatch::Entry& record);

  /// A batch could not be read, so an open stream misses records.
  Answer takeDamage(const std::string& defect);

  /// Nothing came just now: looks whether the sink of an open stream is still well.
  Answer checkSink();

  /// Nothing came for so long that an open stream fails.
  Answer takeSilence(std::chrono::seconds silence);

  /// Ends an open stream as incomplete, for a reason outside of it.
  void end(const std::string& reason);

 private:
  enum class State {
    Idle,
    Open,
    Failed,  ///< the rest of the stream is dropped
    Ended    ///< closed or stopped; its producer may close again
  };

  Answer takeOpen(const korvex::qmx_shm_message_t& header);
  Answer takeOutside(const korvex::qmx_shm_message_t& header);
  Answer takeInStream(const korvex::ShmBatch::Entry& record);
  std::string sequenceDefectOf(const korvex::qmx_shm_message_t& header) const;
  Answer takeData(const korvex::ShmBatch::Entry& record);
  Answer takeClose(const korvex::qmx_shm_message_t& header);
  Answer takeStop(const korvex::qmx_shm_message_t& header);
  Answer refuse(const std::string& text);
  Answer fail(ov_status_t status, const std::string& text);
  void endWith(const korvex::qmx_shm_message_t& header);
  void startStream(const korvex::qmx_shm_message_t& header);
  void finishSegment();
  void leaveIncomplete(const std::string& reason);
  void abandonSink(const std::string& reason);
  StreamSummary summary() const;

  const std::string queue_;
  const SinkFactory openSink_;
  Stats& stats_;
  QueueLog& log_;
  const StillFinishing stillFinishing_;
  State state_ = State::Idle;
  std::unique_ptr<Sink> sink_;
  Xxh128 digest_;
  std::uint64_t lastSequence_ = 0;
  bool cutOffAnother_ = false;  ///< the stream before may still be sending
  bool segmentHasData_ = false;
  std::time_t opened_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t segments_ = 0;
  std::uint64_t records_ = 0;
};

}  // namespace korvexd

#endif
