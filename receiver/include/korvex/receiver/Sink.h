#ifndef KORVEX_RECEIVER_SINK_H
#define KORVEX_RECEIVER_SINK_H

#include <cstddef>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include "korvex/receiver/Export.h"
#include "korvex/receiver/StreamSummary.h"

namespace korvex::receiver {

/// For a sink whose complete() takes a while: call it at least once a second. It tells the producer
/// that the daemon is alive. False means that the daemon is ending: return or throw soon.
using StillFinishing = std::function<bool()>;

/// Where the data of one stream goes.
///
/// Lives for one stream: any number of write(), then complete() or abandon(), all on the receiver's
/// thread. If complete() throws, abandon() follows. A sink that is destroyed earlier looks as if
/// the daemon had died: what it leaves must not pass for a complete stream.
///
/// Failures are exceptions derived from std::exception. The producer gets status 5 and the text,
/// truncated to 127 characters; abandon() follows.
class KORVEX_RECEIVER_EXPORT Sink {
 public:
  Sink() = default;
  virtual ~Sink();
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  /// Takes the next bytes of the stream, in order. The buffer is valid only during the call.
  virtual void write(const unsigned char* data, std::size_t size) = 0;

  /// Called before each message is processed, and about ten times a second while none arrives.
  /// Throw if the stream can no longer be stored: its producer then learns of it now, not with its
  /// next data.
  virtual void check();

  /// The stream is complete. The producer gets its receipt when this returns, so by then the data
  /// must be as safe as this sink can make it.
  virtual void complete(const StreamSummary& summary, const StillFinishing& stillFinishing) = 0;

  /// The stream ended early, or write() or complete() threw. What is there must be visibly
  /// incomplete.
  virtual void abandon(const StreamSummary& summary, const std::string& reason) = 0;

  /// For observers: where the data is, or what became of it. Empty by default, and when it
  /// throws.
  virtual std::string place() const;
};

/// Makes the sink of a stream that opens on this queue at this time. Called on the receiver's
/// thread; with several receivers, on several threads at once. What it throws is reported to the
/// producer as a sink's failure is.
using SinkFactory =
    std::function<std::unique_ptr<Sink>(const std::string& queue, std::time_t opened)>;

}  // namespace korvex::receiver

#endif
