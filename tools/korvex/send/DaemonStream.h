#ifndef KORVEX_TOOL_DAEMON_STREAM_H
#define KORVEX_TOOL_DAEMON_STREAM_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <korvex/ShmWriter.h>
#include <korvex/receiver/QueueStatus.h>
#include <korvex/receiver/ReplyQueue.h>
#include <memory>
#include <optional>
#include <string>

#include "StopSignal.h"
#include "send/RoomWait.h"

namespace korvex::tool {

/// One stream to the daemon, sent so that the daemon's receipt can be trusted.
///
/// A queue pair outlives its streams, so a reply in it may answer an earlier one. Before the stream
/// opens, such replies are removed, even those still waiting in the daemon for room. While data
/// flows, the queue's name is checked: a daemon that has exited leaves an object that swallows
/// everything.
///
/// Replies are fetched from the response queue itself. A writer alone would have to send an empty
/// batch for each look, and would fill the queue while the daemon stores a stream.
///
/// Order: construct, open(), then write() and endSegment(), then close() and awaitReceipt(); or
/// stop() when something went wrong. Waiting ends at the timeout, when the queue is replaced, and
/// on a signal (Interrupted), within a second at the latest. Whatever fails throws a Failure; then
/// only stop() makes sense.
class DaemonStream {
 public:
  struct Settings {
    std::string queue;
    std::string name;              ///< the stream's name, for error texts; may be empty
    std::chrono::seconds timeout;  ///< 1 second to 1 day
    bool expectsReceipt;           ///< without, replies with status 0 are not looked at
    std::chrono::milliseconds keepAlive{10000};  ///< of silence before watch() sends something
  };

  enum class StopWait { Short, Ordinary };

  /// Opens the queues and removes replies to earlier streams.
  DaemonStream(Settings settings, const StopSignal& stop);

  /// A stream that was not closed is left without a close record, so it never looks complete.
  ~DaemonStream();
  DaemonStream(const DaemonStream&) = delete;
  DaemonStream& operator=(const DaemonStream&) = delete;

  /// The most data that one write() takes.
  std::size_t largestPiece() const noexcept { return largestPiece_; }

  /// Returns when the daemon has taken the open record.
  void open();

  void write(const unsigned char* data, std::size_t size);
  void endSegment();

  /// Checks that the daemon is still there and has not replied. After a long silence it sends what
  /// there is, even an empty batch: a daemon may end silent streams. Cheap: it looks at most a
  /// hundred times a second.
  void watch();

  void close();

  /// The text of the daemon's last reply, once there is one. Nothing when none came in time.
  /// Meanwhile it calls `whileWaiting` every few milliseconds.
  std::optional<std::string> awaitReceipt(
      std::chrono::seconds limit, const std::function<void()>& whileWaiting = [] {});

  /// The daemon has everything, and has said that its engine is still storing it.
  bool isEngineFinishing() const noexcept { return isEngineFinishing_; }

  /// Tells the daemon, if it is still reachable, that the stream ends here, incomplete.
  void stop(StopWait wait) noexcept;

 private:
  using Clock = std::chrono::steady_clock;

  /// What the daemon may know of the stream.
  enum class Phase {
    Opening,  ///< nothing: there is nothing to stop
    Open,     ///< that it is open, and it listens: stop() can tell it more
    Closing,  ///< that it is complete: a close record may be on its way, or in the batch, and a
              ///< stop would send it
    Closed,   ///< the same, and the writer sends no further record when it is destroyed
    Ended,    ///< that it was stopped; or the daemon cannot be told anything
  };

  void openQueues();
  void awaitQueuesMade();
  void letEarlierStreamEnd();
  void withdrawOldReplies();
  void flushIgnoringReply();
  void sendOpenRecord();
  void sendCloseRecord();
  void sendStopRecord(Clock::time_point deadline, StopWait wait);
  bool flushBefore(Clock::time_point deadline, StopWait wait);
  void makeRoomFor(std::size_t dataSize);
  void flush();
  bool tryFlush();
  template <typename Send>
  void sendPatiently(Send send);
  void awaitRoom(Clock::time_point deadline);
  void checkSignalAndDaemon();
  void awaitAllTaken(const char* what);
  void look();
  void giveSignOfLife();
  bool hasReceipt();
  void takeReplies();
  void takeReply();
  void refuseForeignReply() const;
  const qmx_shm_response_t* reply() const;
  bool isReply(const Ov_ErrnoException& error) const;
  bool isStillServed() const;
  void checkStillServed();
  void end() noexcept;
  template <typename Operation>
  bool attempt(Operation operation);
  template <typename Call>
  void guarded(Call call);
  [[noreturn]] void throwStreamFailed(ov_status_t status, const std::string& text) const;
  [[noreturn]] void throwTimedOut(const std::string& what);
  [[noreturn]] void throwGone();
  [[noreturn]] void throwQueueError(const std::exception& error);

  Settings settings_;
  const StopSignal& stop_;
  std::unique_ptr<ShmWriter> writer_;
  std::optional<receiver::ReplyQueue> replies_;
  qmx_shm_response_t reply_;  ///< the one that was fetched here; all zero before
  receiver::QueueStatus sendQueue_;
  std::size_t largestPiece_ = 0;
  std::size_t batchSize_ = 0;  ///< at most what the writer's batch has
  RoomWait roomWait_;
  Clock::time_point nextWatch_;
  Clock::time_point lastSent_;
  Clock::time_point lastSign_;  ///< of life while the stream is being stored
  bool isEngineFinishing_ = false;
  Phase phase_ = Phase::Opening;
};

}  // namespace korvex::tool

#endif
