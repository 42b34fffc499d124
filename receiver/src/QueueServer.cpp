#include "QueueServer.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "korvex/receiver/BatchCheck.h"
#include "korvex/receiver/IdleWatch.h"
#include "queues/BusErrorGuard.h"
#include "stream/ErrorText.h"

namespace korvex::receiver {
namespace {

/// Long enough that many idle queues cost next to nothing, short enough to go unnoticed.
constexpr std::chrono::milliseconds kLongestPause{25};

/// How long after a message the receiver still polls the queue itself. From then on its own pauses
/// would be as long as the watch's period.
constexpr std::chrono::milliseconds kAlertness{5};

constexpr std::chrono::seconds kWatchPeriod{1};

/// Between attempts to make lost queues again. Each may take all shared memory that is free, only
/// to find that it is too little.
constexpr std::chrono::milliseconds kShortestRetry{25};
constexpr std::chrono::milliseconds kLongestRetry{1000};
constexpr std::chrono::milliseconds kStreamWatchPeriod{100};
constexpr std::chrono::seconds kFinishingPeriod{5};

void checkIdleTimeout(const Receiver::Settings& settings) {
  if (!settings.idleTimeout || settings.idleTimeout->count() > 0) return;
  throw std::invalid_argument("idle timeout: found " +
                              std::to_string(settings.idleTimeout->count()) +
                              " seconds, expected more than 0");
}

}  // namespace

QueueServer::QueueServer(Receiver::Settings settings, SinkFactory openSink, Observer& observer)
    : settings_(std::move(settings)),
      observer_(observer),
      session_(settings_.queue, std::move(openSink), counters_, observer,
               [this] { return stillFinishing(); }),
      pause_(kLongestPause) {
  checkIdleTimeout(settings_);
  if (settings_.idleWatch != nullptr) {
    idlePlace_.emplace(*settings_.idleWatch->watcher_, [this] { return mayBeLost(); });
  }
  open(settings_.existing);
}

QueueServer::~QueueServer() { removeQueues(); }

void QueueServer::open(Receiver::Existing existing) {
  message_.reset(new unsigned char[settings_.limits.messageSize]);
  next_.reset();
  // Both or neither, even when memory runs out in between.
  auto pair = std::make_unique<QueuePair>(settings_, existing);
  replies_ = std::make_unique<ReplySender>(pair->replies(), counters_);
  pair_ = std::move(pair);
  if (idlePlace_) idlePlace_->attach(settings_.queue, pair_->batches().object());
}

void QueueServer::run(const std::atomic<bool>& stop) noexcept {
  stop_ = &stop;
  takeBusErrors();
  while (!stop) serveOnce();
  observer_.working();
  drain();
  session_.end(Ending::ReceiverEnded, "the daemon ended");
  removeQueues();
  observer_.waiting();
  stop_ = nullptr;
}

bool QueueServer::serveOnce() noexcept {
  observer_.working();
  const bool hasTaken = tryStep();
  observer_.waiting();
  return hasTaken;
}

bool QueueServer::tryStep() noexcept {
  try {
    return step();
  } catch (const std::exception& error) {
    replacePair(textOf(error));
    return false;
  }
}

/// The close of an open stream may be among the messages that wait.
void QueueServer::drain() noexcept {
  if (pair_ == nullptr) return;
  try {
    takeRest();
  } catch (const std::exception& error) {
    replacePair(textOf(error));
  }
}

/// No more than there are now: producers may go on sending.
void QueueServer::takeRest() {
  const auto deadline = Clock::now() + kDrainPatience;
  pause_.reset();
  std::size_t rest = pair_->batches().messages();
  while ((nextSize_ || rest > 0) && Clock::now() < deadline) {
    observer_.working();
    if (nextSize_) {
      takeNextMessage();
    } else if (tryTakeMessage()) {
      --rest;
    }
  }
}

/// Counts what is lost only once producers can no longer find the queues: ending a stream takes
/// time, and the host may have other receivers to wait for.
void QueueServer::removeQueues() noexcept {
  if (pair_ == nullptr) return;
  try {
    pair_->removeNames();
    const std::size_t untaken = pair_->batches().messages() + (nextSize_ ? 1 : 0);
    if (untaken > 0) observer_.messagesLeft(untaken);
    dropPair();
  } catch (const std::exception& error) {
    replacePair(textOf(error));
  }
}

/// Tries one message. Tries an empty queue too, if its lock is taken: the lock's owner may be
/// dead.
bool QueueServer::step() {
  takeOrders();
  if (pair_ == nullptr) {
    reopen();
    return false;
  }
  if (replies_->isPending()) replies_->sendPending();
  if (nextSize_) {
    takeNextMessage();
    return true;
  }
  if (!isIdle()) return tryTakeMessage();
  // A lost reply queue that is noticed now costs no stream; noticed at the next open record, it
  // would.
  pair_->replies().checkLock();
  watchQueues();
  return false;
}

/// Pauses if there was none.
bool QueueServer::tryTakeMessage() {
  std::size_t size = 0;
  if (!receive(message_, size)) {
    pause();
    return false;
  }
  pause_.next();
  takeMessage(size);
  return true;
}

bool QueueServer::receive(const Buffer& message, std::size_t& size) {
  const auto outcome = pair_->batches().receive(message.get(), settings_.limits.messageSize, size);
  if (outcome != MessageQueue::Outcome::Done) return false;
  observer_.working();
  counters_.add(Count::Batches);
  observer_.messageReceived(++messageNumber_, message.get(), size);
  return true;
}

bool QueueServer::isIdle() {
  OwnedQueue& batches = pair_->batches();
  return batches.messages() == 0 && !batches.looksLocked();
}

/// A queue that lost its name would be served forever, and no producer would find it. One that was
/// overwritten while idle would be noticed only when its next producer comes.
void QueueServer::watchQueues() {
  const bool wasOpen = session_.isOpen();
  watchStream();
  if (wasOpen && !session_.isOpen()) return;  // orders may have waited for its end
  const auto now = Clock::now();
  if (now < nextLook_) return pauseWhileIdle(now);
  nextLook_ = now + kWatchPeriod;
  const std::string defect = pair_->defect();
  if (!defect.empty()) replacePair(defect);
}

/// Any batch is a sign of life, even an empty one. A sink asks the system, which takes far longer
/// than the looks at a queue whose next batch is due any moment.
void QueueServer::watchStream() {
  if (Clock::now() < nextStreamLook_) return;
  nextStreamLook_ = Clock::now() + kStreamWatchPeriod;
  answer(session_.checkSink());
  const auto& limit = settings_.idleTimeout;
  // In whole seconds: a long limit would overflow in the clock's unit.
  if (!limit || std::chrono::floor<std::chrono::seconds>(Clock::now() - lastSign_) < *limit) return;
  answer(session_.takeSilence(*limit));
}

/// A queue that is lost meanwhile is noticed afterwards, when the receipt is sent.
bool QueueServer::stillFinishing() noexcept {
  observer_.working();
  try {
    takeEmptyBatches();
    sayFinishing();
  } catch (const std::exception&) {
    nextFinishing_ = Clock::now() + kFinishingPeriod;
  }
  return stop_ == nullptr || !*stop_;
}

/// Never more than one, so that there is room for the receipt.
void QueueServer::sayFinishing() {
  const auto now = Clock::now();
  if (now < nextFinishing_) return;
  nextFinishing_ = now + kFinishingPeriod;
  if (replies_->isAllTaken()) replies_->send(finishingReply());
}

/// A producer that waits for its receipt may send empty batches: its writer takes a reply with each
/// that finds room. Any other message has to wait.
void QueueServer::takeEmptyBatches() {
  if (next_ == nullptr) next_.reset(new unsigned char[settings_.limits.messageSize]);
  std::size_t size = 0;
  // No more than the queue can hold: the sink waits for the answer.
  for (std::size_t left = settings_.limits.messages; left > 0 && !nextSize_ && !isIdle(); --left) {
    if (!receive(next_, size)) return;
    nextSize_ = size;  // kept if memory runs out here
    if (BatchCheck(next_.get(), size).ok() && BatchRecords(next_.get()).isEmpty())
      nextSize_.reset();
  }
}

void QueueServer::takeNextMessage() {
  message_.swap(next_);
  takeMessage(*std::exchange(nextSize_, std::nullopt));
}

void QueueServer::pause() noexcept {
  observer_.waiting();
  pause_.wait(Clock::now() + kLongestPause);
}

/// The watch does not notice room for pending replies.
void QueueServer::pauseWhileIdle(Clock::time_point now) noexcept {
  const bool isOnTheAlert = now - lastSign_ < kAlertness;
  if (!idlePlace_ || stop_ == nullptr || isOnTheAlert || replies_->isPending()) return pause();
  observer_.waiting();
  const bool hasNews = idlePlace_->await({pair_->batches().view(), *stop_, hasOrders_, lastSign_},
                                         nextLookAtStream());
  if (hasNews) pause_.reset();
}

QueueServer::Clock::time_point QueueServer::nextLookAtStream() const noexcept {
  return session_.isOpen() ? nextStreamLook_ : Clock::time_point::max();
}

/// Called by the watch's thread while this receiver's sleeps.
bool QueueServer::mayBeLost() noexcept {
  try {
    return pair_->replies().looksLocked() || !pair_->defect().empty();
  } catch (const std::exception&) {
    return true;
  }
}

/// The sink first: a failure that is found only after this batch would be taken for the next
/// producer's, whose first batches this may be one of.
void QueueServer::takeMessage(std::size_t size) {
  answer(session_.checkSink());
  if (rest_ && *rest_ > 0) --*rest_;
  nextFinishing_ = Clock::now() + kFinishingPeriod;
  const BatchCheck check(message_.get(), size);
  if (check.ok()) {
    takeRecords();
  } else {
    refuseBatch(check);
  }
  lastSign_ = Clock::now();  // after the sink: its slowness is not the producer's silence
}

void QueueServer::takeRecords() {
  for (BatchRecords records(message_.get()); !records.isEmpty();) {
    const Record record = records.take();
    if (!session_.gather(record)) takeRecord(record);
  }
  answer(session_.flush());
}

void QueueServer::takeRecord(const Record& record) {
  answer(session_.flush());
  // Unread replies were meant for an earlier producer; this one would take them as its own.
  if (record.type == kTypeOpen) replies_->withdraw();
  answer(session_.take(record));
}

void QueueServer::answer(const StreamSession::Answer& answer) {
  if (answer) replies_->send(*answer);
}

void QueueServer::refuseBatch(const BatchCheck& check) {
  counters_.add(Count::BadBatches);
  observer_.batchRefused(messageNumber_, check);
  answer(session_.takeDamage(check.text()));
}

void QueueServer::replacePair(const std::string& reason) noexcept {
  observer_.queuesLost(reason);
  counters_.add(Count::QueueReplacements);
  session_.end(Ending::QueuesLost, "its queues were lost: ", reason);
  dropPair();
}

void QueueServer::dropPair() noexcept {
  if (idlePlace_) idlePlace_->detach();
  replies_.reset();
  pair_.reset();
  counters_.set(Count::RepliesPending, 0);
  nextSize_.reset();
  pause_.reset();
  nextRetry_ = {};
}

void QueueServer::change(const Receiver::Settings& settings, SinkFactory openSink) {
  checkIdleTimeout(settings);
  const std::lock_guard<std::mutex> lock(changeMutex_);
  change_ = Change{settings, std::move(openSink)};
  hasChange_ = true;
  hasOrders_ = true;
}

void QueueServer::retire() noexcept {
  isToRetire_ = true;
  hasOrders_ = true;
}

/// What cannot be done yet is tried at every step.
void QueueServer::takeOrders() {
  hasOrders_ = false;
  if (hasChange_ && !refusesStreams_ && !session_.isOpen()) tryChange();
  if (isToRetire_ && !refusesStreams_) prepareRetirement();
  if (refusesStreams_ && !session_.isOpen()) hasRetired_ = true;
  // The change may be possible in a moment, and nothing else would wake a receiver that sleeps.
  if (hasChange_ && !refusesStreams_ && !session_.isOpen()) hasOrders_ = true;
}

void QueueServer::tryChange() {
  const Receiver::Settings before = settings_;  // while the order still stands: it takes memory
  std::unique_lock<std::mutex> lock(changeMutex_);
  const bool needsOtherPair = !QueuePair::isMadeAlike(settings_, change_->settings);
  if (needsOtherPair && !mayReplacePair()) return;
  Change change = std::move(*change_);
  change_.reset();
  hasChange_ = false;
  lock.unlock();
  if (needsOtherPair && !replacePairFor(change.settings, before)) return;
  takeSettings(change.settings);
  session_.openWith(std::move(change.openSink));
}

/// A producer whose records wait, or who is about to send some, has to be served from this pair.
bool QueueServer::mayReplacePair() { return pair_ == nullptr || (!nextSize_ && isIdle()); }

void QueueServer::takeSettings(const Receiver::Settings& settings) {
  settings_.limits = settings.limits;
  settings_.mode = settings.mode;
  settings_.group = settings.group;
  settings_.idleTimeout = settings.idleTimeout;
}

/// False when that fails; the old settings then still hold. The old pair goes first: memory may be
/// too short for both.
bool QueueServer::replacePairFor(const Receiver::Settings& settings,
                                 const Receiver::Settings& before) {
  takeSettings(settings);
  dropPair();
  try {
    open(Receiver::Existing::Refuse);
  } catch (const std::exception& error) {
    takeSettings(before);
    observer_.settingsNotChanged(textOf(error));
    return false;
  }
  reopenFailed_ = false;
  observer_.settingsChanged();
  return true;
}

/// A stream whose open record was already waiting when the order came is still taken.
void QueueServer::prepareRetirement() {
  if (pair_ != nullptr && !rest_) rest_ = pair_->batches().messages();
  const bool isRestTaken = pair_ == nullptr || *rest_ == 0 || isIdle();
  if (!isRestTaken || nextSize_) return;
  refusesStreams_ = true;
  session_.openWith([](const std::string&, std::time_t) -> std::unique_ptr<Sink> {
    throw std::runtime_error("the daemon accepts no new streams on this queue");
  });
}

/// Retried until it succeeds: another process may have taken the name, or the memory.
void QueueServer::reopen() noexcept {
  if (Clock::now() < nextRetry_) return pause();
  try {
    open(Receiver::Existing::Refuse);
    reopenFailed_ = false;
    observer_.queuesReplaced();
  } catch (const std::exception& error) {
    if (!std::exchange(reopenFailed_, true)) {
      observer_.queuesNotReplaced(textOf(error));
      retryPause_ = kShortestRetry;
    }
    nextRetry_ = Clock::now() + retryPause_;
    retryPause_ = std::min(2 * retryPause_, kLongestRetry);
  }
}

}  // namespace korvex::receiver
