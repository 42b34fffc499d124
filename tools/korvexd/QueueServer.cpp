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
constexpr std::chrono::seconds kFinishingPeriod{5};

bool holdsNoRecord(const std::vector<unsigned char>& batch, std::size_t size) {
  std::queue<korvex::ShmBatch::Entry> records;
  korvex::ShmBatch::getEntriesFromBuffer(records, batch.data(), size);
  return records.empty();
}

}  // namespace

QueueServer::QueueServer(const Settings& settings)
    : settings_(settings),
      log_(settings.queue),
      session_(settings.queue, settings.openSink, stats_, log_, [this] { return stillFinishing(); }),
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
  stop_ = &stop;
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
  if (nextSize_) return takeNextMessage();
  if (isIdle()) {
    // Noticed now, it costs nobody a stream: found only at the next open record, it would.
    replies_->checkLock();
    watchQueues();
    watchStream();
    return pause();
  }
  tryTakeMessage();
}

/// Pauses when there was none to be had.
bool QueueServer::tryTakeMessage() {
  std::size_t size = 0;
  if (!receive(message_, size)) {
    pause();
    return false;
  }
  pause_.reset();
  noteMessage(message_, size);
  takeMessage(size);
  return true;
}

bool QueueServer::receive(std::vector<unsigned char>& message, std::size_t& size) {
  OwnedQueue& batches = pair_->batches();
  const auto outcome = batches.queue().tryReceiveNext(message.data(), message.size(), size);
  lockWatch_.note(outcome, batches.view(), LockWatch::Clock::now());
  return outcome == MessageQueue::Outcome::Done;
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

/// Any batch is a sign of life, an empty one too.
void QueueServer::watchStream() {
  answer(session_.checkSink());
  const auto& limit = settings_.idleTimeout;
  if (!limit || LockWatch::Clock::now() - lastSign_ < *limit) return;
  answer(session_.takeSilence(*limit));
}

/// A queue that is lost meanwhile is noticed afterwards, when the receipt is sent.
bool QueueServer::stillFinishing() noexcept {
  try {
    surviveCut([this] {
      takeEmptyBatches();
      sayFinishing();
    });
  } catch (const std::exception&) {
    nextFinishing_ = LockWatch::Clock::time_point::max();
  }
  return stop_ == nullptr || !*stop_;
}

/// Never more than one, so that there is room for the receipt.
void QueueServer::sayFinishing() {
  const auto now = LockWatch::Clock::now();
  if (now < nextFinishing_) return;
  nextFinishing_ = now + kFinishingPeriod;
  if (replies_->isAllTaken()) replies_->send(finishingReply());
}

/// A producer that waits for its receipt sends empty batches, and gets a reply with each that finds
/// room. Anything else has to wait.
void QueueServer::takeEmptyBatches() {
  next_.resize(message_.size());
  std::size_t size = 0;
  while (!nextSize_ && !isIdle() && receive(next_, size)) {
    noteMessage(next_, size);
    const bool isEmpty = BatchCheck(next_.data(), size).ok() && holdsNoRecord(next_, size);
    if (!isEmpty) nextSize_ = size;
  }
}

void QueueServer::takeNextMessage() {
  message_.swap(next_);
  takeMessage(*std::exchange(nextSize_, std::nullopt));
}

void QueueServer::pause() noexcept { pause_.wait(LockWatch::Clock::now() + kLongestPause); }

void QueueServer::noteMessage(const std::vector<unsigned char>& message, std::size_t size) {
  ++batchNumber_;
  stats_.add(Count::Batches);
  if (capture_) capture(message, size);
}

void QueueServer::takeMessage(std::size_t size) {
  nextFinishing_ = LockWatch::Clock::now() + kFinishingPeriod;
  const BatchCheck check(message_.data(), size);
  if (check.ok()) {
    takeRecords(size);
  } else {
    refuseBatch(check.text());
  }
  lastSign_ = LockWatch::Clock::now();  // after it: a slow sink is not the producer's silence
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

void QueueServer::capture(const std::vector<unsigned char>& message, std::size_t size) noexcept {
  try {
    capture_->store(batchNumber_, message.data(), size);
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
  nextSize_.reset();
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
