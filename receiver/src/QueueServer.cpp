#include "QueueServer.h"

#include <exception>
#include <utility>

#include "stream/BatchCheck.h"
#include "shm/Format.h"

namespace korvex::receiver {
namespace {

/// Long enough that many idle queues cost next to nothing, short enough that nobody notices.
constexpr std::chrono::milliseconds kLongestPause{25};

constexpr std::chrono::seconds kWatchPeriod{1};

}  // namespace

QueueServer::QueueServer(Receiver::Settings settings, SinkFactory openSink, Observer& observer)
    : settings_(std::move(settings)),
      observer_(observer),
      session_(settings_.queue, std::move(openSink), counters_, observer),
      pause_(kLongestPause),
      message_(settings_.limits.messageSize) {
  open(settings_.existing);
}

void QueueServer::open(Receiver::Existing existing) {
  pair_ = std::make_unique<QueuePair>(settings_.queue, settings_.limits, settings_.mode, existing);
  replies_ = std::make_unique<ReplySender>(pair_->replies(), counters_);
}

void QueueServer::run(const std::atomic<bool>& stop) noexcept {
  while (!stop) serveOnce();
  drain();
  session_.end("the daemon ended");
}

bool QueueServer::serveOnce() noexcept {
  const std::uint64_t before = batchNumber_;
  try {
    step();
  } catch (const std::exception& error) {
    replacePair(error.what());
  }
  return batchNumber_ != before;
}

/// A producer may have closed its stream already.
void QueueServer::drain() noexcept {
  if (pair_ == nullptr) return;
  try {
    takeRest();
    reportUntaken();
  } catch (const std::exception& error) {
    replacePair(error.what());
  }
}

/// No more than there are now: producers may go on sending.
void QueueServer::takeRest() {
  const auto deadline = Clock::now() + kDrainPatience;
  pause_.reset();
  std::size_t rest = pair_->batches().messages();
  while (rest > 0 && Clock::now() < deadline) {
    if (tryTakeMessage()) --rest;
  }
}

void QueueServer::reportUntaken() {
  const std::size_t untaken = pair_->batches().messages();
  if (untaken == 0) return;
  observer_.messagesLeft(untaken);
}

/// Tries one message. An empty queue whose lock is taken is tried as well: the one who holds the
/// lock may be dead.
void QueueServer::step() {
  if (pair_ == nullptr) return reopen();
  if (replies_->isPending()) replies_->sendPending();
  if (isIdle()) {
    // Noticed now, it costs nobody a stream: found only at the next open record, it would.
    pair_->replies().checkLock();
    return watchQueues();
  }
  tryTakeMessage();
}

/// Pauses when there was none to be had.
bool QueueServer::tryTakeMessage() {
  std::size_t size = 0;
  const auto outcome = pair_->batches().receive(message_.data(), message_.size(), size);
  if (outcome != MessageQueue::Outcome::Done) {
    pause();
    return false;
  }
  pause_.reset();
  takeMessage(size);
  return true;
}

bool QueueServer::isIdle() {
  OwnedQueue& batches = pair_->batches();
  return batches.messages() == 0 && !batches.looksLocked();
}

/// A queue without its name would be served for ever, and no producer would find it. One that was
/// overwritten while nobody used it would be noticed by its next producer only.
void QueueServer::watchQueues() {
  const auto now = Clock::now();
  if (now < nextLook_) return pause();
  nextLook_ = now + kWatchPeriod;
  const std::string defect = pair_->defect();
  if (!defect.empty()) replacePair(defect);
}

void QueueServer::pause() noexcept { pause_.wait(Clock::now() + kLongestPause); }

void QueueServer::takeMessage(std::size_t size) {
  ++batchNumber_;
  counters_.add(Count::Batches);
  observer_.messageReceived(batchNumber_, message_.data(), size);
  const BatchCheck check(message_.data(), size);
  if (!check.ok()) return refuseBatch(check.text());
  takeRecords(size);
}

void QueueServer::takeRecords(std::size_t size) {
  ShmBatch::getEntriesFromBuffer(records_, message_.data(), size);
  for (; !records_.empty(); records_.pop()) {
    const ShmBatch::Entry& record = records_.front();
    // What still lies there was meant for an earlier producer; this one would take it as its own.
    if (record.header.type == kTypeOpen) replies_->withdraw();
    answer(session_.take(record));
  }
}

void QueueServer::answer(const StreamSession::Answer& answer) {
  if (answer) replies_->send(*answer);
}

void QueueServer::refuseBatch(const std::string& defect) {
  counters_.add(Count::BadBatches);
  observer_.batchRefused(batchNumber_, defect);
  answer(session_.takeDamage(defect));
}

void QueueServer::replacePair(const std::string& reason) noexcept {
  observer_.queuesLost(reason);
  counters_.add(Count::QueueReplacements);
  session_.end("its queues were lost: " + reason);
  replies_.reset();
  pair_.reset();
  counters_.set(Count::RepliesPending, 0);
  pause_.reset();
}

/// Tried again until it succeeds: somebody else may have taken the name, or the memory.
void QueueServer::reopen() noexcept {
  try {
    open(Receiver::Existing::Refuse);
    reopenFailed_ = false;
    observer_.queuesReplaced();
  } catch (const std::exception& error) {
    if (!std::exchange(reopenFailed_, true)) {
      observer_.queuesNotReplaced(error.what());
    }
    pause();
  }
}

}  // namespace korvex::receiver
