#ifndef KORVEX_RECEIVER_STREAM_SUMMARY_H
#define KORVEX_RECEIVER_STREAM_SUMMARY_H

#include <cstdint>
#include <ctime>
#include <string>

namespace korvex::receiver {

/// How a stream ended.
enum class Ending {
  Complete,
  Stopped,       ///< by its producer
  CutOff,        ///< another stream was opened before its close
  Silent,        ///< no batch for `Settings::idleTimeout`
  Corrupt,       ///< a damaged batch, or a record against the protocol
  SinkFailed,    ///< it could not be stored
  QueuesLost,    ///< the queues had to be given up
  ReceiverEnded  ///< in the middle of the stream
};

/// What is known of a stream when it ends. When memory is short, `queue` and `xxh128` of an
/// incomplete one may be empty.
struct StreamSummary {
  std::string queue;                 ///< that it came from
  std::time_t opened = 0;            ///< when its open record was taken
  std::time_t closed = 0;            ///< when it ended, however it did
  std::uint64_t bytes = 0;           ///< of data, handed to the sink
  std::uint64_t segments = 0;        ///< that held data
  std::uint64_t records = 0;         ///< the open and the close record included
  std::string xxh128;                ///< of all data: 32 lower-case hex digits
  Ending ending = Ending::Complete;  ///< how it ended
};

}  // namespace korvex::receiver

#endif
