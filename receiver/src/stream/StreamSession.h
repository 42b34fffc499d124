#ifndef KORVEX_RECEIVER_STREAM_SESSION_H
#define KORVEX_RECEIVER_STREAM_SESSION_H

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "korvex/receiver/Counters.h"
#include "korvex/receiver/Observer.h"
#include "korvex/receiver/Sink.h"
#include "korvex/receiver/StreamDigest.h"
#include "stream/BatchRecords.h"
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

  /// Takes the next record. What was gathered before it must be flushed.
  Answer take(const Record& record);

  /// Copies the next record's data, to be passed on with its neighbours', if it is a short one that
  /// follows others of its segment, and there is room. A sink and a digest cost more for each call
  /// than for a few bytes. False if nothing was done: the record is for take().
  bool gather(const Record& record) noexcept {
    if (state_ != State::Open || !isGatherable(record)) return false;
    std::memcpy(gathered_.get() + gatheredSize_, record.data, record.size);
    gatheredSize_ += record.size;
    ++gatheredRecords_;
    stream_.lastSequence = record.sequence;
    return true;
  }

  /// Passes on what was gathered, at the latest when its batch ends.
  Answer flush();

  /// A batch could not be read, so an open stream misses records.
  Answer takeDamage(const std::string& defect);

  /// Nothing arrives at the moment: checks that the sink of an open stream still works.
  Answer checkSink();

  /// Nothing arrived for so long that an open stream fails.
  Answer takeSilence(std::chrono::seconds silence);

  /// Ends an open stream as incomplete, for a reason outside of it: `what`, with `details` after
  /// it. When memory is too short for that, sink and observer are told "out of memory".
  void end(Ending ending, const char* what, const std::string& details = {}) noexcept;

 private:
  /// Longer records are worth a call of their own.
  static constexpr std::uint32_t kLongestGathered = 512;
  static constexpr std::size_t kGatherSize = std::size_t{64} * 1024;

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

  bool isGatherable(const Record& record) const noexcept {
    return stream_.segmentHasData && record.type == kTypeSegmentData &&
           record.sequence > stream_.lastSequence && record.sequence - stream_.lastSequence == 1 &&
           record.size <= kLongestGathered && record.size <= kGatherSize - gatheredSize_;
  }

  Answer takeOpen(const Record& record);
  Answer takeWithoutStream(const Record& record);
  Answer takeOfFailedStream(const Record& record);
  Answer takeAfterEnd(const Record& record);
  Answer takeInStream(const Record& record);
  std::string sequenceDefectOf(const Record& record) const;
  Answer passOn(const unsigned char* data, std::size_t size);
  Answer takeClose(const Record& record);
  Answer takeStop(const Record& record);
  Answer refuse(const std::string& text);
  Answer fail(Ending ending, const std::string& text);
  void rememberEnd(const Record& record);
  void startStream(const Record& record, bool cutsOffAnother);
  void finishSegment();
  void leaveIncomplete(const StreamSummary& taken, const std::string& reason) noexcept;
  void abandonSink(const StreamSummary& summary, const std::string& reason) noexcept;
  StreamSummary summary(Ending ending) const;
  StreamSummary summaryWithoutMemory(Ending ending) const noexcept;
  StreamSummary figures(Ending ending) const noexcept;
  void addTexts(StreamSummary& summary) const;

  const std::string queue_;
  SinkFactory openSink_;
  Counters& counters_;
  Observer& observer_;
  const StillFinishing stillFinishing_;
  State state_ = State::Idle;
  std::unique_ptr<Sink> sink_;
  StreamDigest digest_;
  Stream stream_;
  const std::unique_ptr<unsigned char[]> gathered_{new unsigned char[kGatherSize]};
  std::size_t gatheredSize_ = 0;
  std::uint64_t gatheredRecords_ = 0;
};

}  // namespace korvex::receiver

#endif
