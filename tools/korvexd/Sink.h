#ifndef KORVEXD_SINK_H
#define KORVEXD_SINK_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

namespace korvexd {

/// What is known of a stream when it ends.
struct StreamSummary {
  std::string queue;
  std::time_t opened;
  std::time_t closed;
  std::uint64_t bytes;
  std::uint64_t segments;  ///< that held data
  std::uint64_t records;
  std::string xxh128;  ///< hex digits of the data's digest
};

/// Called at least once a second by a sink that takes long to finish. False: the daemon is ending.
using StillFinishing = std::function<bool()>;

/// Where the data of one stream goes.
///
/// Lives for one stream: any number of write(), then exactly one of complete() and abandon(). One
/// that is destroyed before looks like the work of a daemon that died: whatever is left must not
/// be taken for a complete stream. Used by one thread. Failures are SystemError, or another
/// std::exception where no call to the system has failed.
class Sink {
 public:
  virtual ~Sink() = default;

  /// Takes the next bytes of the stream, in order.
  virtual void write(const unsigned char* data, std::size_t size) = 0;

  /// Called several times a second while nothing comes. Throws when the stream cannot be stored any
  /// more, so that its producer hears of it.
  virtual void check() {}

  /// Nothing is missing. When this returns, the data is as safe as this sink can make it. When it
  /// throws, abandon() follows.
  virtual void complete(const StreamSummary& summary, const StillFinishing& stillFinishing) = 0;

  /// The stream ended early. What is there must be visibly incomplete. Also after write() threw.
  virtual void abandon(const StreamSummary& summary, const std::string& reason) = 0;

  /// For people: where the data is, or became of it.
  virtual std::string place() const = 0;
};

/// Makes the sink of a stream that opens on this queue at this time. Called by several threads.
using SinkFactory =
    std::function<std::unique_ptr<Sink>(const std::string& queue, std::time_t opened)>;

}  // namespace korvexd

#endif
