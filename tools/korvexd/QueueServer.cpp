#include "korvexd/QueueServer.h"

#include <spdlog/spdlog.h>

#include <exception>
#include <stdexcept>
#include <utility>

#include "korvexd/BatchCheck.h"
#include "korvexd/CutGuard.h"
#include "korvexd/RecordType.h"

namespace korvexd {
namespace {

using korvex::MessageQueue;

/// Long enough that many idle queues cost next to nothing, short enough that nobody notices.
constexpr std::chrono::milliseconds kLongestPause{25};

constexpr std::chrono::seconds kWatchPeriod{1};

}  // namespace

QueueServer::QueueServer(const Settings& settings)
    : settings_(settings),
      log_(settings.queue),
      session_(settings.queue, settings.openSink, stats_, log_),
      pause_(kLongestPause),
      message_(settings.limits.messageSize) {
  if (settings.captureFolder) {
    capture_.emplace(*settings.captureFolder, settings.queue);
    batchNumber_ = capture_->lastNumber();
  }
  open(settings.existing);
}

void QueueServer::open(QueuePair::Existing existing) {
  pair_ = std::make_unique<QueuePair>(settings_.queue, settings_.limits, settings_.mode, existing);
  replies_ = std::make_unique<ReplySender>(pair_->replies(), stats_);
  lockWatch_ = LockWatch();
}

void QueueServer::run(const std::atomic<bool>& stop) noexcept {
  while (!stop) {
    try {
      surviveCut([this] { step(); });
    } catch (const std::exception& error) {
      replacePair(error.what());
    }
  }
  drain();
  session_.end("the daemon ended");
  log_.finish();
}

/// A producer may have closed its stream already.
void QueueServer::drain() noexcept {
  if (pair_ == nullptr) return;
  try {
    surviveCut([this] {
      takeRest();
      reportUntaken();
    });
  } catch (const std::exception& error) {
    replacePair(error.what());
  }
}

/// No more than there are now: producers may go on sending.
void QueueServer::takeRest() {
  const auto deadline = LockWatch::Clock::now() + kDrainPatience;
  pause_.reset();
  std::size_t rest = pair_->batches().view().messages();
  while (rest > 0 && LockWatch::Clock::now() < deadline) {
    if (tryTakeMessage()) --rest;
  }
}

void QueueServer::reportUntaken() const {
  const std::size_t untaken = pair_->batches().view().messages();
  if (untaken == 0) return;
  spdlog::warn("{}: the daemon ends, messages not taken: {}", queue(), untaken);
}

/// Tries one message. An empty queue whose lock is taken is tried as well: the one who holds the
/// lock may be dead.
void QueueServer::step() {
  if (pair_ == nullptr) return reopen();
  if (replies_->isPending()) replies_->sendPending();
  if (isIdle()) {
    // Noticed now, it costs nobody a stream: found only at the next open record, it would.
    replies_->checkLock();
    watchQueues();
    return pause();
  }
  tryTakeMessage();
}

/// Pauses when there was none to be had.
bool QueueServer::tryTakeMessage() {
  OwnedQueue& batches = pair_->batches();
  std::size_t size = 0;
  const auto outcome = batches.queue().tryReceiveNext(message_.data(), message_.size(), size);
  lockWatch_.note(outcome, batches.view(), LockWatch::Clock::now());
  if (outcome != MessageQueue::Outcome::Done) {
    pause();
    return false;
  }
  pause_.reset();
  takeMessage(size);
  return true;
}

bool QueueServer::isIdle() const noexcept {
  const korvex::QueueView& batches = pair_->batches().view();
  return batches.messages() == 0 && !batches.looksLocked();
}

/// A queue without its name would be served for ever, and no producer would find it. One that was
/// overwritten while nobody used it would be noticed by its next producer only.
void QueueServer::watchQueues() {
  const auto now = LockWatch::Clock::now();
  if (now < nextLook_) return;
  nextLook_ = now + kWatchPeriod;
  log_.update();
  if (!pair_->isStillNamed()) throw std::runtime_error("somebody removed or replaced their names");
  if (!pair_->isWhole()) throw std::runtime_error("somebody changed the size of their memory");
  if (!pair_->isIntact()) throw std::runtime_error("somebody overwrote their memory");
}

void QueueServer::pause() noexcept { pause_.wait(LockWatch::Clock::now() + kLongestPause); }

void QueueServer::takeMessage(std::size_t size) {
  ++batchNumber_;
  stats_.add(Count::Batches);
  if (capture_) capture(size);
  const BatchCheck check(message_.data(), size);
  if (!check.ok()) return refuseBatch(check.text());
  takeRecords(size);
}

void QueueServer::takeRecords(std::size_t size) {
  korvex::ShmBatch::getEntriesFromBuffer(records_, message_.data(), size);
  for (; !records_.empty(); records_.pop()) {
    const korvex::ShmBatch::Entry& record = records_.front();
    // What still lies there was meant for an earlier producer; this one would take it as its own.
    if (record.header.type == kTypeOpen) replies_->withdraw();
    answer(session_.take(record));
  }
}

void QueueServer::answer(const StreamSession::Answer& answer) {
  if (answer) replies_->send(*answer);
}

void QueueServer::refuseBatch(const std::string& defect) {
  stats_.add(Count::BadBatches);
  log_.write(QueueLog::Kind::DamagedBatch, spdlog::level::warn,
             "batch " + std::to_string(batchNumber_) + " is damaged: " + defect);
  answer(session_.takeDamage(defect));
}

void QueueServer::capture(std::size_t size) noexcept {
  try {
    capture_->store(batchNumber_, message_.data(), size);
  } catch (const std::exception& error) {
    // Said once; a full disk would otherwise fill the log as well.
    if (stats_.get(Count::CaptureFailures) == 0) {
      spdlog::warn("{}: batch {}: {}", queue(), batchNumber_, error.what());
    }
    stats_.add(Count::CaptureFailures);
  }
}

void QueueServer::replacePair(const std::string& reason) noexcept {
  log_.write(QueueLog::Kind::QueuePair, spdlog::level::warn, "the queues are lost: " + reason);
  stats_.add(Count::QueueReplacements);
  session_.end("its queues were lost: " + reason);
  replies_.reset();
  pair_.reset();
  stats_.set(Count::RepliesPending, 0);
  pause_.reset();
}

/// Tried again until it succeeds: somebody else may have taken the name, or the memory.
void QueueServer::reopen() noexcept {
  try {
    open(QueuePair::Existing::Refuse);
    reopenFailed_ = false;
    log_.write(QueueLog::Kind::QueuePair, spdlog::level::info, "served anew");
  } catch (const std::exception& error) {
    if (!std::exchange(reopenFailed_, true)) {
      log_.write(QueueLog::Kind::QueuePair, spdlog::level::err,
                 std::string("the queues cannot be made anew yet: ") + error.what());
    }
    pause();
  }
}

}  // namespace korvexd
