#include "send/DaemonStream.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <functional>
#include <korvex/ShmBatch.h>
#include <korvex/Status.h>
#include <korvex/receiver/BusErrorGuard.h>
#include <korvex/receiver/Receipt.h>
#include <qmx/trace.h>
#include <utility>
#include <vector>

#include "Failure.h"
#include "common/Printable.h"
#include "send/LookUntil.h"

namespace korvex::tool {
namespace {

constexpr std::chrono::seconds kStopPatience{2};  // a person waits, or a supervisor with a limit

/// Seconds that the writer may wait in one call, where it sees no signal.
constexpr unsigned kStep = 1;

constexpr int kOpenAttempts = 3;
constexpr std::chrono::milliseconds kWatchPeriod{10};

std::size_t sizeOfRecord(std::size_t dataSize) {
  return qmx_shm_message_t::getSerializedSize() + dataSize;
}

std::size_t sizeOfBatch(std::size_t recordsSize) {
  return ShmBatch::MetaData::getSerializedSize() + recordsSize;
}

std::string quoted(const std::string& name) { return "'" + common::printable(name) + "'"; }

std::unique_ptr<ShmWriter> makeWriter(const DaemonStream::Settings& settings) {
  return std::make_unique<ShmWriter>(settings.name, settings.queue, kStep, kStep, false);
}

using Condition = receiver::QueueStatus::Condition;

bool isHalfMade(const std::string& queue) {
  return receiver::QueueStatus(queue).condition() == Condition::Unfinished;
}

bool isEmpty(const qmx_shm_response_t& reply) {
  return reply.status == 0 && reply.message[0] == '\0';
}

/// The daemon has everything and is alive; its sink is still storing the stream.
bool isFinishing(const qmx_shm_response_t& reply) {
  return reply.status == 0 && receiver::textOf(reply) == receiver::kFinishingText;
}

/// A writer closes an open stream when it is destroyed, and a close record would tell the daemon
/// that a broken stream is complete. So the writer of a broken stream stays until the process ends.
void keepForever(std::unique_ptr<ShmWriter> writer) noexcept {
  ShmWriter* const kept = writer.release();
  try {
    static auto& reachable = *new std::vector<ShmWriter*>;  // so that leak checkers are content
    reachable.push_back(kept);
  } catch (const std::exception&) {
    // It stays all the same.
  }
}

}  // namespace

DaemonStream::DaemonStream(Settings settings, const StopSignal& stop)
    : settings_(std::move(settings)), stop_(stop), sendQueue_(settings_.queue) {
  openQueues();
  const std::size_t messageSize = sendQueue_.limits().messageSize;
  const std::size_t overhead = sizeOfBatch(sizeOfRecord(0));
  if (messageSize <= overhead) {
    throwStreamFailed(kStatusDoesNotFit,
                      "the queue's messages are too small: found " + std::to_string(messageSize) +
                          " bytes, expected more than " + std::to_string(overhead));
  }
  largestPiece_ = std::min<std::size_t>(messageSize - overhead, ShmWriter::getMaxSegmentSize());
}

DaemonStream::~DaemonStream() {
  if (phase_ != Phase::Closed && writer_) keepForever(std::move(writer_));
}

/// Opens a new writer, and a view and the replies of exactly the queues that it opened.
void DaemonStream::openQueues() {
  for (int attempts = 0; attempts < kOpenAttempts; ++attempts) {
    awaitQueuesMade();
    sendQueue_ = receiver::QueueStatus(settings_.queue);
    attempt([&] {
      writer_ = makeWriter(settings_);
      replies_.emplace(settings_.queue);
    });
    // The object with this name before and after the writer opened it is the one it opened.
    const bool isSound = sendQueue_.condition() == Condition::Sound;
    if (isSound && isStillServed() && replies_->isStillNamed()) return;
  }
  throwGone();
}

/// The writer would wait too, but would not notice a signal.
void DaemonStream::awaitQueuesMade() {
  const std::string replies = getMessageQueueResponseName(settings_.queue);
  const bool areMade = lookUntil(Clock::now() + settings_.timeout, [&] {
    stop_.throwIfReceived();
    return !isHalfMade(settings_.queue) && !isHalfMade(replies);
  });
  if (areMade) return;
  throwQueueError(std::runtime_error("it was still unfinished after " +
                                     std::to_string(settings_.timeout.count()) + " s"));
}

/// The daemon may still be storing what an earlier sender gave up waiting for, and have replies for
/// which there was no room. This stream must meet none of them. Batches are taken in order, so once
/// an empty one was taken, everything before it is done and answered. Before the daemon takes a
/// batch it sends what waits: with room for it, and two more batches taken, nothing waits any
/// more. Two, because it may have tried just before there was room and taken the first one then.
void DaemonStream::letEarlierStreamEnd() {
  flushIgnoringReply();
  awaitAllTaken("the daemon to take the first batch");
  withdrawOldReplies();
  flushIgnoringReply();
  flushIgnoringReply();
  awaitAllTaken("the daemon to take the first batches");
  withdrawOldReplies();
}

void DaemonStream::withdrawOldReplies() {
  // Bounded, as another producer may be filling the queue.
  for (std::size_t left = 2 * replies_->capacity(); left > 0 && replies_->messages() > 0; --left) {
    stop_.throwIfReceived();
    attempt([this] { replies_->take(); });
  }
}

void DaemonStream::flushIgnoringReply() {
  sendPatiently([this] {
    try {
      guarded([this] { writer_->flush_shm_buffer(kStep); });
    } catch (const Failure&) {
      throw;
    } catch (const Ov_ErrnoException& error) {
      if (!isReply(error)) return false;
      if (*__qmxlog_trace_location() != 0) {
        __TraceA("%s: earlier reply: %s", "flushIgnoringReply", error.what());
      }
    } catch (const std::exception& error) {
      throwQueueError(error);
    }
    return true;
  });
}

void DaemonStream::open() {
  letEarlierStreamEnd();
  openQueues();  // a fresh writer remembers no reply
  sendOpenRecord();
  flush();
  // Once nothing waits, the empty batch after the open record has been taken, so the open record
  // has been processed.
  awaitAllTaken("the daemon to take the open record");
  takeReplies();
  refuseForeignReply();
}

/// A record that found no room stays in its writer's batch, and a writer that opens again appends a
/// second one. So each attempt has a new writer.
void DaemonStream::sendOpenRecord() {
  sendPatiently([this, isAgain = false]() mutable {
    if (std::exchange(isAgain, true)) openQueues();
    phase_ = Phase::Open;  // before the attempt: what fails may have been sent all the same
    const bool isSent = attempt([this] { writer_->open(); });
    if (!isSent) phase_ = Phase::Opening;
    return isSent;
  });
  batchSize_ = 0;
}

/// Each batch that the daemon takes restarts the timeout.
void DaemonStream::awaitAllTaken(const char* what) {
  auto deadline = Clock::now() + settings_.timeout;
  std::size_t fewest = sendQueue_.messages();
  const auto isTaken = [&] {
    stop_.throwIfReceived();
    const std::size_t left = sendQueue_.messages();
    checkStillServed();  // afterwards: a truncated queue looks empty
    if (left < fewest) deadline = Clock::now() + settings_.timeout;
    fewest = std::min(fewest, left);
    return left == 0;
  };
  while (!lookUntil(deadline, isTaken)) {
    if (Clock::now() >= deadline) throwTimedOut(what);
  }
}

void DaemonStream::write(const unsigned char* data, std::size_t size) {
  watch();
  makeRoomFor(size);
  if (!attempt([&] { writer_->writeSegment(data, size); })) throwTimedOut("room");
}

void DaemonStream::endSegment() {
  makeRoomFor(0);
  if (!attempt([this] { writer_->endSegment(); })) throwTimedOut("room");
}

/// Sends the batch when the next record would not fit. The writer would do so too, but it would
/// wait for room without noticing signals, and in the end lose the record.
void DaemonStream::makeRoomFor(std::size_t dataSize) {
  const std::size_t added = sizeOfRecord(dataSize);
  if (sizeOfBatch(batchSize_ + added) > sendQueue_.limits().messageSize) flush();
  batchSize_ += added;
}

void DaemonStream::flush() {
  sendPatiently([this] { return tryFlush(); });
}

bool DaemonStream::tryFlush() {
  const bool isSent = attempt([this] { writer_->flush_shm_buffer(kStep); });
  if (!isSent) return false;
  batchSize_ = 0;
  lastSent_ = Clock::now();
  return true;
}

/// Sends until there is room, and between attempts looks for signals and at the queue's name.
/// `send` returns whether there was room.
template <typename Send>
void DaemonStream::sendPatiently(Send send) {
  const auto deadline = Clock::now() + settings_.timeout;
  for (;;) {
    awaitRoom(deadline);
    if (send()) return;
    checkSignalAndDaemon();
    if (Clock::now() >= deadline) throwTimedOut("room");
  }
}

void DaemonStream::watch() {
  stop_.throwIfReceived();
  const auto now = Clock::now();
  if (now < nextWatch_) return;
  nextWatch_ = now + kWatchPeriod;
  look();
  if (now >= lastSent_ + settings_.keepAlive) giveSignOfLife();
}

/// While the daemon still has something to take, it is not waiting for a sign.
void DaemonStream::giveSignOfLife() {
  if (sendQueue_.messages() == 0) flush();
}

void DaemonStream::look() {
  checkStillServed();
  takeReplies();
  refuseForeignReply();
}

void DaemonStream::close() {
  // Ctrl-C reaches a whole pipeline: the command before this one has died of it, and its output,
  // which has just ended, must not become a complete stream.
  stop_.throwIfReceived();
  look();
  makeRoomFor(0);
  phase_ = Phase::Closing;
  sendCloseRecord();
}

/// A close record that found no room stays in the batch, while the writer stays open.
void DaemonStream::sendCloseRecord() {
  sendPatiently([this, isAgain = false]() mutable {
    if (std::exchange(isAgain, true)) return tryFlush();
    const bool isSent = attempt([this] { writer_->close(); });
    if (isSent) phase_ = Phase::Closed;
    return isSent;
  });
}

std::optional<std::string> DaemonStream::awaitReceipt(std::chrono::seconds limit,
                                                      const std::function<void()>& whileWaiting) {
  lastSign_ = Clock::now();
  const auto look = [&] {
    // Before the look: a terminal that is held up may block for long, and what the daemon said
    // meanwhile must count before the time does.
    whileWaiting();
    return hasReceipt();
  };
  while (!lookUntil(lastSign_ + limit, look)) {
    if (Clock::now() >= lastSign_ + limit) return std::nullopt;
  }
  return std::string(receiver::textOf(*reply()));
}

bool DaemonStream::hasReceipt() {
  stop_.throwIfReceived();
  // The name first: a daemon that answers and then ends leaves its answer in the old queue.
  const bool isServed = isStillServed();
  takeReplies();
  if (reply() == nullptr && !isServed) throwGone();
  return reply() != nullptr;
}

void DaemonStream::stop(StopWait wait) noexcept {
  if (phase_ != Phase::Open) return;
  phase_ = Phase::Ended;
  const auto patience = wait == StopWait::Short ? kStopPatience : settings_.timeout;
  try {
    sendStopRecord(Clock::now() + patience, wait);
  } catch (const std::exception&) {
    // The stream has failed already, and that was reported. The daemon will notice at the next open
    // record.
  }
}

/// The batch first, so that the record has room in the next one.
void DaemonStream::sendStopRecord(Clock::time_point deadline, StopWait wait) {
  if (batchSize_ > 0 && !flushBefore(deadline, wait)) return;
  try {
    guarded([this] { writer_->stop(true); });
  } catch (const Ov_ErrnoException& error) {
    if (!isReply(error)) flushBefore(deadline, wait);
  }
}

/// Whether the batch was sent in time; what the daemon replies no longer matters.
bool DaemonStream::flushBefore(Clock::time_point deadline, StopWait wait) {
  while (isStillServed()) {
    try {
      guarded([this] { writer_->flush_shm_buffer(kStep); });
      return true;
    } catch (const Ov_ErrnoException& error) {
      if (isReply(error)) return true;
    }
    const bool isHurried = wait == StopWait::Ordinary && stop_.received() != 0;
    if (isHurried || Clock::now() >= deadline) break;
  }
  return false;
}

/// The writer would wait too, but would notice neither a signal nor a replaced queue.
void DaemonStream::awaitRoom(Clock::time_point deadline) {
  if (!sendQueue_.looksFull()) return;
  stop_.throwIfReceived();
  const auto check = [this] { checkSignalAndDaemon(); };
  if (!roomWait_.behind(sendQueue_, deadline, check)) throwTimedOut("room");
}

void DaemonStream::checkSignalAndDaemon() {
  stop_.throwIfReceived();
  checkStillServed();
}

/// Takes the replies that seem to be there, up to the one that decides about the stream.
void DaemonStream::takeReplies() {
  for (std::size_t left = replies_->capacity(); left > 0 && replies_->messages() > 0; --left) {
    if (settings_.expectsReceipt && reply() != nullptr) return;
    takeReply();
  }
}

void DaemonStream::takeReply() {
  std::optional<qmx_shm_response_t> received;
  attempt([&] { received = replies_->take(); });
  if (!received) return;
  if (received->status != 0) {
    throwStreamFailed(received->status, common::printable(receiver::textOf(*received)));
  }
  if (isFinishing(*received)) {
    lastSign_ = Clock::now();
    isEngineFinishing_ = true;
  } else {
    reply_ = *received;
  }
}

/// The reply received so far, if any: fetched here, or by the writer with one of its batches.
const qmx_shm_response_t* DaemonStream::reply() const {
  if (!isEmpty(reply_)) return &reply_;
  const qmx_shm_response_t& met = writer_->getResponse();
  return isEmpty(met) || isFinishing(met) ? nullptr : &met;
}

bool DaemonStream::isReply(const Ov_ErrnoException& error) const {
  const qmx_shm_response_t& reply = writer_->getResponse();
  return reply.status == error.getStatus() && receiver::textOf(reply) == error.getMessage();
}

void DaemonStream::refuseForeignReply() const {
  if (!settings_.expectsReceipt || reply() == nullptr) return;
  throwStreamFailed(EPROTO, "a reply for another stream arrived, \"" +
                                common::printable(receiver::textOf(*reply())) +
                                "\": is another producer using this queue?");
}

bool DaemonStream::isStillServed() const {
  return sendQueue_.isStillNamed() && (!replies_ || replies_->isStillNamed());
}

void DaemonStream::checkStillServed() {
  if (!isStillServed()) throwGone();
}

/// Runs an operation on the queues and translates its errors into Failures. False when there was no
/// room.
template <typename Operation>
bool DaemonStream::attempt(Operation operation) {
  try {
    guarded(operation);
    return true;
  } catch (const Failure&) {
    throw;
  } catch (const Ov_ErrnoException& error) {
    const bool isAnswer = writer_ && isReply(error);
    if (!isAnswer && error.getStatus() == kStatusTimedOut) return false;
    if (!isAnswer) end();
    throwStreamFailed(error.getStatus(), common::printable(error.getMessage()));
  } catch (const std::exception& error) {
    throwQueueError(error);
  }
}

/// The daemon cannot be told anything more. A writer that has closed stays closed.
void DaemonStream::end() noexcept {
  if (phase_ != Phase::Closed) phase_ = Phase::Ended;
}

/// Whoever may open a queue may also truncate its memory, at any moment. The writer is left alone
/// then, as after any failure.
template <typename Call>
void DaemonStream::guarded(Call call) {
  if (receiver::runGuarded(std::ref(call))) return;
  end();
  throwStreamFailed(
      ECONNRESET,
      "the queue's memory was truncated, or the system is out of memory: the data sent to "
      "the daemon may be lost");
}

void DaemonStream::throwStreamFailed(ov_status_t status, const std::string& text) const {
  throw Failure(status, "the stream to queue " + quoted(settings_.queue) + " failed: status " +
                            std::to_string(status) + ": " + text);
}

void DaemonStream::throwTimedOut(const std::string& what) {
  end();
  throwStreamFailed(
      kStatusTimedOut,
      "waited " + std::to_string(settings_.timeout.count()) + " s for " + what +
          (settings_.name.empty() ? "" : " on stream " + common::printable(settings_.name)) +
          ": the daemon is gone or does not keep up");
}

void DaemonStream::throwGone() {
  end();
  throwStreamFailed(ECONNRESET,
                    "the queue was removed or replaced: the daemon that received this stream has "
                    "ended, and the data sent to it may be lost");
}

void DaemonStream::throwQueueError(const std::exception& error) {
  end();
  receiver::QueueStatus queue(settings_.queue);
  // Both are needed; the one that cannot be opened is the one to name.
  if (queue.condition() == Condition::Sound) {
    queue = receiver::QueueStatus(getMessageQueueResponseName(settings_.queue));
  }
  const auto status = queue.condition() == Condition::Unreachable
                          ? static_cast<ov_status_t>(queue.systemError())
                          : kStatusCorrupt;
  const char* const hint = status == EACCES
                               ? "; korvexd's --mode and group decide which users may use its queue"
                               : "; korvexd must be running and serve this queue";
  throw Failure(status,
                "queue " + quoted(settings_.queue) + ": " + common::printable(error.what()) + hint);
}

}  // namespace korvex::tool
