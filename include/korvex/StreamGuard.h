#ifndef KORVEX_STREAM_GUARD_H
#define KORVEX_STREAM_GUARD_H

#include <pthread.h>

#include "korvex/ShmWriter.h"

namespace korvex {

/// Stops an open stream unless it gets closed: for every way out of a scope that an error takes.
///
/// A writer that is destroyed closes its stream, and the daemon takes what it has by then for
/// complete. So a producer that fails halfway must stop the stream first:
///
///     stream.open();
///     korvex::StreamGuard guard(stream);
///     ... writeSegment() and endSegment() as often as needed, anything may throw ...
///     guard.close();
///
/// Declare it behind the writer, which must outlive it, once the stream is open. After a stop,
/// close records of the same writer complete nothing.
class StreamGuard {
 public:
  explicit StreamGuard(ShmWriter& stream) noexcept : stream_(&stream) {}

  /// Sends a stop record unless close() succeeded, and waits up to the writer's stop timeout; a
  /// thread is not cancelled meanwhile. Never throws: when the record cannot be sent either, it has
  /// used up its number, and the daemon takes no close behind such a gap.
  ~StreamGuard() {
    if (stream_ == nullptr) return;
    int before = PTHREAD_CANCEL_ENABLE;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    try {
      stream_->stop(true);
    } catch (...) {
      // The error that led here is the one to report.
    }
    ::pthread_setcancelstate(before, nullptr);
  }

  StreamGuard(const StreamGuard&) = delete;
  StreamGuard& operator=(const StreamGuard&) = delete;

  /// Closes the stream. When that throws, whether the stream became complete is open: all of it was
  /// written, and only a receipt tells.
  void close() {
    stream_->close();
    stream_ = nullptr;
  }

 private:
  ShmWriter* stream_;
};

}  // namespace korvex

#endif
