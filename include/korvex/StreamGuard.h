#ifndef KORVEX_STREAM_GUARD_H
#define KORVEX_STREAM_GUARD_H

#include <pthread.h>

#include "korvex/ShmWriter.h"

namespace korvex {

/// Stops an open stream unless close() succeeded, on every path out of a scope.
///
/// A writer's destructor closes its stream, and the daemon takes what it has by then as complete.
/// So a producer that fails halfway must stop the stream first:
///
///     stream.open();
///     korvex::StreamGuard guard(stream);
///     ... writeSegment() and endSegment() as often as needed, anything may throw ...
///     guard.close();
///
/// Declare it after the writer, which must outlive it, once the stream is open. After a stop, close
/// records of the same writer complete nothing.
class StreamGuard {
 public:
  /// Keeps a reference to the writer; sends nothing.
  explicit StreamGuard(ShmWriter& stream) noexcept : stream_(&stream) {}

  /// Sends a stop record unless close() succeeded, waiting up to the writer's stop timeout with
  /// cancellation disabled. Never throws. A stop record that cannot be sent has still used up its
  /// sequence number, and the daemon refuses a close after such a gap.
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

  /// Closes the stream. If that throws, the stream may still have become complete, since all of it
  /// was written: only a receipt can tell.
  void close() {
    stream_->close();
    stream_ = nullptr;
  }

 private:
  ShmWriter* stream_;
};

}  // namespace korvex

#endif
