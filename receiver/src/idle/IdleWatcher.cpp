#include "idle/IdleWatcher.h"

#include <algorithm>
#include <exception>
#include <signal.h>
#include <system_error>
#include <utility>

#include "korvex/receiver/SystemError.h"
#include "queue/SignalsBlocked.h"
#include "queues/BusErrorGuard.h"

namespace korvex::receiver {
namespace {

/// How long a message can wait on a queue that has long been idle. Half of it would double the cost
/// of an idle daemon. Waking and looking take 150 microseconds more: one hundred rounds a second.
constexpr std::chrono::microseconds kPeriod{9850};

/// The same while a producer seems active. Half of the other, which thus still fits the rounds.
constexpr std::chrono::milliseconds kShortPeriod{5};
constexpr std::chrono::milliseconds kRecently{150};

/// After a queue was opened, the watch polls so often, for as long as most producers need to send
/// their first message.
constexpr std::chrono::microseconds kOpenedPeriod{500};
constexpr unsigned kOpenedRounds = 8;

constexpr std::chrono::seconds kCheckPeriod{2};
constexpr std::size_t kRoundsPerCheck = kCheckPeriod / kPeriod;

/// The host's signal handlers run in its own threads; only a fault is always this thread's.
void takeOnlyFaults() noexcept {
  sigset_t signals;
  ::sigfillset(&signals);
  for (const int fault : {SIGBUS, SIGSEGV, SIGFPE, SIGILL}) ::sigdelset(&signals, fault);
  ::pthread_sigmask(SIG_SETMASK, &signals, nullptr);
}

/// How many queues ahead to prefetch: since the last round other programs have used the caches.
constexpr std::size_t kAhead = 16;

bool looksIdle(const QueueView::Glance& queue) noexcept {
  try {
    return surviveBusError([&] { return queue.looksIdle(); });
  } catch (const MemoryLost&) {
    return false;
  }
}

}  // namespace

IdleWatcher::IdleWatcher() {
  const SignalsBlocked blocked;
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error& error) {
    throw SystemError("starting the thread that watches idle queues", error.code().value());
  }
}

IdleWatcher::~IdleWatcher() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    isOver_ = true;
    changed_.notify_one();
  }
  thread_.join();
}

void IdleWatcher::addPlace() {
  const std::lock_guard<std::mutex> lock(mutex_);
  sleepers_.reserve(places_ + 1);
  ++places_;
}

void IdleWatcher::removePlace() noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  --places_;
}

void IdleWatcher::add(const Sleeper& sleeper) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  sleepers_.push_back(sleeper);
  if (sleepers_.size() == 1) changed_.notify_one();
}

void IdleWatcher::remove(const IdlePlace& place) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto isIts = [&](const Sleeper& sleeper) { return sleeper.place == &place; };
  sleepers_.erase(std::remove_if(sleepers_.begin(), sleepers_.end(), isIts), sleepers_.end());
}

void IdleWatcher::run() noexcept {
  takeOnlyFaults();
  std::unique_lock<std::mutex> lock(mutex_);
  while (!isOver_) {
    if (sleepers_.empty()) {
      changed_.wait(lock);
      continue;
    }
    lock.unlock();
    const bool isOpened = awaitRound();
    lock.lock();
    lookAtAll(isOpened);
  }
}

/// Whether a queue was opened not long ago. A process that keeps opening queues cannot make the
/// watch spin: after each series of rounds it does not listen for a while.
bool IdleWatcher::awaitRound() noexcept {
  if (openedRounds_ == 0) {
    const std::chrono::nanoseconds period = isHurried_ ? kShortPeriod : kPeriod;
    const auto deaf = std::clamp<Clock::duration>(nextSeries_ - Clock::now(), {}, period);
    std::this_thread::sleep_for(deaf);
    if (!opens_.await(period - deaf)) return false;
    openedRounds_ = kOpenedRounds;
    nextSeries_ = Clock::now() + kShortPeriod;
  }
  --openedRounds_;
  std::this_thread::sleep_for(kOpenedPeriod);
  return true;
}

void IdleWatcher::lookAtAll(bool isOpened) noexcept {
  const auto now = Clock::now();
  const bool isFullRound = isOpened || now >= nextFullRound_;
  if (isFullRound) nextFullRound_ = now + kPeriod;
  checksLeft_ = sleepers_.size() / kRoundsPerCheck + 1;
  isHurried_ = false;
  for (std::size_t at = 0; at < sleepers_.size();) {
    if (at + kAhead < sleepers_.size()) sleepers_[at + kAhead].queue.prefetch();
    Sleeper& sleeper = sleepers_[at];
    if (isOpened) sleeper.recentUntil = now + kRecently;
    const bool isRecent = now < sleeper.recentUntil;
    isHurried_ = isHurried_ || isRecent;
    if ((isRecent || isFullRound) && hasNews(sleeper, now)) {
      sleeper.place->wake();
      sleeper = sleepers_.back();
      sleepers_.pop_back();
    } else {
      ++at;
    }
  }
}

/// The checks are system calls, so they are spread over the rounds.
bool IdleWatcher::hasNews(Sleeper& sleeper, Clock::time_point now) noexcept {
  if (*sleeper.stop || *sleeper.orders || !looksIdle(sleeper.queue)) return true;
  if (now < sleeper.nextCheck || checksLeft_ == 0) return false;
  --checksLeft_;
  sleeper.nextCheck = now + kCheckPeriod;
  return sleeper.place->mayBeLost_();
}

IdlePlace::IdlePlace(IdleWatcher& watcher, std::function<bool()> mayBeLost)
    : watcher_(watcher), mayBeLost_(std::move(mayBeLost)) {
  watcher_.addPlace();
}

IdlePlace::~IdlePlace() { watcher_.removePlace(); }

bool IdlePlace::await(const Idleness& idleness, Clock::time_point deadline) noexcept {
  std::unique_lock<std::mutex> lock(mutex_);
  isAwake_ = false;
  lock.unlock();
  watcher_.add({QueueView::Glance(idleness.queue), &idleness.stop, &idleness.orders,
                idleness.lastSign + kRecently, idleness.nextCheck, this});
  lock.lock();
  const bool isWoken = woken_.wait_until(lock, deadline, [this] { return isAwake_; });
  lock.unlock();
  if (!isWoken) watcher_.remove(*this);
  return isWoken;
}

/// Under the lock to the end: the receiver may be gone as soon as it sees that it is awake.
void IdlePlace::wake() noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  isAwake_ = true;
  woken_.notify_one();
}

}  // namespace korvex::receiver
