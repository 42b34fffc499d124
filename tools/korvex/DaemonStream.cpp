#include "DaemonStream.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <string_view>
#include <utility>
#include <vector>

#include "Failure.h"
#include "Printable.h"
#include "Receipt.h"
#include "shm/Pause.h"
#include "support/Status.h"
#include "support/Trace.h"

namespace korvex::tool {
namespace {

constexpr unsigned kStopTimeout = 2;  // seconds: a person is waiting, or a supervisor with a limit
constexpr std::size_t kBatchOverhead = 8 + 48;  // the metadata block and one record's header
constexpr unsigned kPollTimeout = 1;
constexpr std::string_view kFinishing = "finishing";
constexpr int kOpenAttempts = 3;
constexpr std::chrono::milliseconds kWatchPeriod{10};
constexpr std::chrono::milliseconds kLongestSleep{4};
constexpr std::chrono::microseconds kShortestPoll{100};
constexpr std::chrono::microseconds kLongestPoll{50000};

unsigned secondsOf(std::chrono::seconds time) { return static_cast<unsigned>(time.count()); }

std::string quoted(const std::string& name) { return "'" + printable(name) + "'"; }

std::unique_ptr<ShmWriter> makeWriter(const DaemonStream::Settings& settings) {
  return std::make_unique<ShmWriter>(settings.name, settings.queue, secondsOf(settings.timeout),
                                     kStopTimeout, false);
}

/// A writer closes an open stream when it is destroyed, and a close record would tell the daemon
/// that a broken stream is complete. So the writer of a broken stream stays until the process ends.
void keepForEver(std::unique_ptr<ShmWriter> writer) {
  static auto& kept = *new std::vector<std::unique_ptr<ShmWriter>>;
  kept.push_back(std::move(writer));
}

}  // namespace

DaemonStream::DaemonStream(Settings settings, const StopSignal& stop)
    : settings_(std::move(settings)), stop_(stop) {
  openQueues();
  const std::size_t messageSize = sendView_.maxMessageSize();
  if (messageSize <= kBatchOverhead) {
    throwStreamFailed(kStatusDoesNotFit,
                      "the queue's messages are too small: found " + std::to_string(messageSize) +
                          " bytes, expected more than " + std::to_string(kBatchOverhead));
  }
  largestPiece_ =
      std::min<std::size_t>(messageSize - kBatchOverhead, ShmWriter::getMaxSegmentSize());
}

DaemonStream::~DaemonStream() {
  if (!isClosed_ && writer_) keepForEver(std::move(writer_));
}

/// A fresh writer, and views of the very queues that it has.
void DaemonStream::openQueues() {
  for (int attempts = 0; attempts < kOpenAttempts; ++attempts) {
    sendView_ = QueueView(settings_.queue);
    replyView_ = QueueView(getMessageQueueResponseName(settings_.queue));
    attempt([this] { writer_ = makeWriter(settings_); });
    // What had the name before and after the writer looked is what the writer has.
    if (sendView_.isStillNamed(settings_.queue) &&
        replyView_.isStillNamed(getMessageQueueResponseName(settings_.queue))) {
      return;
    }
  }
  throwGone();
}

/// The daemon may still be storing what an earlier sender gave up waiting for. Its reply comes
/// then, and must not be met by this stream: once an empty batch was taken, everything before it is
/// done.
void DaemonStream::letEarlierStreamEnd() {
  awaitRoom();
  flushIgnoringReply();
  awaitAllTaken("the daemon to finish an earlier stream");
}

/// Each empty batch brings one reply back. What the replies say is of no concern to this stream.
void DaemonStream::withdrawOldReplies() {
  // Bounded: somebody may be filling the queue meanwhile.
  for (std::size_t left = replyView_.maxMessages(); left > 0 && replyView_.messages() > 0; --left) {
    awaitRoom();
    flushIgnoringReply();
  }
}

void DaemonStream::flushIgnoringReply() {
  try {
    writer_->flush_shm_buffer(kPollTimeout);
  } catch (const Ov_ErrnoException& oldReply) {
    if (isTracing()) {
      __TraceA("%s: reply of an earlier stream: %s", "withdrawOldReplies", oldReply.what());
    }
  } catch (const std::exception& error) {
    throwQueueError(error);
  }
}

void DaemonStream::open() {
  letEarlierStreamEnd();
  withdrawOldReplies();
  openQueues();  // a fresh writer remembers no reply
  awaitRoom();
  isStoppable_ = true;
  attempt([this] { writer_->open(); });
  awaitRoom();
  attempt([this] { writer_->flush_shm_buffer(secondsOf(settings_.timeout)); });
  awaitOpenTaken();
  takeReplies();
  refuseForeignReply();
}

/// The batches are taken in order. When nothing waits any more, the empty batch behind the open
/// record was taken, so the open record was dealt with.
void DaemonStream::awaitOpenTaken() { awaitAllTaken("the daemon to take the open record"); }

void DaemonStream::awaitAllTaken(const char* what) {
  const auto deadline = Clock::now() + settings_.timeout;
  Pause pause(kLongestSleep);
  while (sendView_.messages() > 0) {
    stop_.throwIfReceived();
    checkStillServed();
    if (Clock::now() >= deadline) throwTimedOut(what);
    pause.wait(deadline);
  }
}

void DaemonStream::write(const unsigned char* data, std::size_t size) {
  watch();
  awaitRoom();
  attempt([&] { writer_->writeSegment(data, size); });
}

void DaemonStream::endSegment() {
  awaitRoom();
  attempt([this] { writer_->endSegment(); });
}

void DaemonStream::watch() {
  stop_.throwIfReceived();
  const auto now = Clock::now();
  if (now < nextWatch_) return;
  nextWatch_ = now + kWatchPeriod;
  look();
}

void DaemonStream::look() {
  checkStillServed();
  takeReplies();
  refuseForeignReply();
}

void DaemonStream::close() {
  // Ctrl-C reaches a whole pipeline: the command in front has died of it, and its output, which
  // just ended, must not become a complete stream.
  stop_.throwIfReceived();
  look();
  awaitRoom();
  attempt([this] { writer_->close(); });
  isClosed_ = true;
  isStoppable_ = false;
}

std::optional<std::string> DaemonStream::awaitReceipt(std::chrono::seconds limit) {
  auto deadline = Clock::now() + limit;
  for (auto pause = kShortestPoll;; pause = std::min(2 * pause, kLongestPoll)) {
    stop_.throwIfReceived();
    // The name first: a daemon that answers and then ends leaves its answer in the old queue.
    const bool isServed = sendView_.isStillNamed(settings_.queue);
    const bool hasNews = replyView_.messages() > 0;
    takeReplies();
    if (!hasReply()) poll();
    if (hasNews && isFinishing()) deadline = Clock::now() + limit;
    if (hasReply()) return std::string(textOf(writer_->getResponse()));
    if (!isServed) throwGone();
    if (Clock::now() >= deadline) return std::nullopt;
    pauseForReply(pause);
  }
}

void DaemonStream::stop(StopWait wait) noexcept {
  if (!isStoppable_) return;
  isStoppable_ = false;
  try {
    writer_->stop(wait == StopWait::Short);
  } catch (const std::exception&) {
    // The stream has failed already, and that is told. The daemon notices at the next open record.
  }
}

/// The writer would wait as well, but neither for a signal nor with an eye on the queue's name.
void DaemonStream::awaitRoom() {
  if (!sendView_.looksFull()) return;
  const auto deadline = Clock::now() + settings_.timeout;
  auto nextCheck = Clock::now() + kWatchPeriod;
  Pause pause(kLongestSleep);
  do {
    stop_.throwIfReceived();
    pause.wait(deadline);
    const auto now = Clock::now();
    if (now >= deadline) throwTimedOut("room");
    if (now < nextCheck) continue;
    nextCheck = now + kWatchPeriod;
    checkStillServed();
  } while (sendView_.looksFull());
}

/// Waits until a reply seems to be there, at most as long as the pause.
void DaemonStream::pauseForReply(std::chrono::microseconds longest) const {
  const auto end = Clock::now() + longest;
  Pause pause(kLongestSleep);
  while (replyView_.messages() == 0 && stop_.received() == 0 && Clock::now() < end) {
    pause.wait(end);
  }
}

/// Takes what seems to be there, up to the reply that the stream will be judged by.
void DaemonStream::takeReplies() {
  for (std::size_t left = replyView_.maxMessages(); left > 0 && replyView_.messages() > 0; --left) {
    if (settings_.expectsReceipt && hasReply()) return;
    poll();
  }
}

/// Sends the batch as it stands, mostly an empty one, for the reply that comes with it.
void DaemonStream::poll() {
  if (sendView_.looksFull()) return;
  attempt([this] {
    try {
      writer_->flush_shm_buffer(kPollTimeout);
    } catch (const Ov_ErrnoException& error) {
      if (isReply(error)) throw;
      // No room after all. The batch is kept, and the reply will wait.
    }
  });
}

bool DaemonStream::hasReply() const {
  const qmx_shm_response_t& reply = writer_->getResponse();
  return (reply.status != 0 || reply.message[0] != '\0') && !isFinishing();
}

/// The daemon has everything and is alive, but what stores the stream takes its time.
bool DaemonStream::isFinishing() const {
  const qmx_shm_response_t& reply = writer_->getResponse();
  return reply.status == 0 && textOf(reply) == kFinishing;
}

bool DaemonStream::isReply(const Ov_ErrnoException& error) const {
  const qmx_shm_response_t& reply = writer_->getResponse();
  return reply.status == error.getStatus() && textOf(reply) == error.getMessage();
}

void DaemonStream::refuseForeignReply() const {
  if (!settings_.expectsReceipt || !hasReply()) return;
  throwStreamFailed(EPROTO, "a reply for another stream arrived, \"" +
                                printable(textOf(writer_->getResponse())) +
                                "\": is another producer using this queue?");
}

void DaemonStream::checkStillServed() {
  if (!sendView_.isStillNamed(settings_.queue)) throwGone();
}

/// Runs an operation of the writer and tells its errors in this tool's words.
template <typename Operation>
void DaemonStream::attempt(Operation operation) {
  try {
    operation();
  } catch (const Ov_ErrnoException& error) {
    if (!writer_ || !isReply(error)) isStoppable_ = false;
    throwStreamFailed(error.getStatus(), printable(error.getMessage()));
  } catch (const std::exception& error) {
    throwQueueError(error);
  }
}

void DaemonStream::throwStreamFailed(ov_status_t status, const std::string& text) const {
  throw Failure(status, "the stream to queue " + quoted(settings_.queue) + " failed: status " +
                            std::to_string(status) + ": " + text);
}

void DaemonStream::throwTimedOut(const std::string& what) {
  isStoppable_ = false;
  throwStreamFailed(kStatusTimedOut, "waited " + std::to_string(settings_.timeout.count()) +
                                         " s for " + what +
                                         ": the daemon is gone or does not keep up");
}

void DaemonStream::throwGone() {
  isStoppable_ = false;
  throwStreamFailed(ECONNRESET,
                    "the queue was removed or replaced: the daemon that took this stream has "
                    "ended, and what it was sent may be lost");
}

void DaemonStream::throwQueueError(const std::exception& error) {
  isStoppable_ = false;
  QueueView view(settings_.queue);
  // Both are needed; the one that cannot be opened is the one to name.
  if (view.state() == QueueView::State::Sound) {
    view = QueueView(getMessageQueueResponseName(settings_.queue));
  }
  const auto status = view.state() == QueueView::State::Unreachable
                          ? static_cast<ov_status_t>(view.systemError())
                          : kStatusCorrupt;
  throw Failure(status, "queue " + quoted(settings_.queue) + ": " + printable(error.what()) +
                            "; korvexd must be running and serve this queue");
}

}  // namespace korvex::tool
