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
/// of an idle daemon. Waking and looking take 100 to 150 microseconds more: 100 rounds a second.
constexpr std::chrono::microseconds kPeriod{9850};

/// The same while a producer seems active. Half of the other, which thus still fits the rounds.
constexpr std::chrono::milliseconds kShortPeriod{5};
constexpr std::chrono::milliseconds kRecently{150};

/// How often the watch polls after a queue was opened, and how many times: for as long as most
/// producers need to send their first message.
constexpr std::chrono::microseconds kOpenedPeriod{500};
constexpr unsigned kOpenedRounds = 8;

/// Each queue is checked every two seconds for what a glance does not show. A tenth of them at a
/// time: after a sleep, a lone check takes five times as long as one of a series.
constexpr std::chrono::milliseconds kCheckPause{200};
constexpr std::size_t kCheckSeries = 10;

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

/// Returns room for the first page of the place's queue.
void* IdleWatcher::addPlace() {
  const std::lock_guard<std::mutex> lock(mutex_);
  sleepers_.reserve(places_ + 1);
  void* const headerPage = headerPages_.take();
  ++places_;
  return headerPage;
}

void IdleWatcher::removePlace(void* headerPage) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  headerPages_.give(headerPage);
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
  isHurried_ = false;
  for (std::size_t at = 0; at < sleepers_.size();) {
    if (at + kAhead < sleepers_.size()) sleepers_[at + kAhead].prefetch();
    Sleeper& sleeper = sleepers_[at];
    if (isOpened) sleeper.recentUntil = now + kRecently;
    const bool isRecent = now < sleeper.recentUntil;
    isHurried_ = isHurried_ || isRecent;
    if ((isRecent || isFullRound) && sleeper.hasNews()) {
      wake(at);
    } else {
      ++at;
    }
  }
  if (now >= nextChecks_) {
    nextChecks_ = now + kCheckPause;
    checkSome();
  }
}

/// In turns, so that none is left out.
void IdleWatcher::checkSome() noexcept {
  std::size_t count = (sleepers_.size() + kCheckSeries - 1) / kCheckSeries;
  for (; count > 0 && !sleepers_.empty(); --count) {
    if (++checked_ >= sleepers_.size()) checked_ = 0;
    if (sleepers_[checked_].place->mayBeLost_()) wake(checked_);
  }
}

/// The last sleeper moves up to its index.
void IdleWatcher::wake(std::size_t at) noexcept {
  sleepers_[at].place->wake();
  sleepers_[at] = sleepers_.back();
  sleepers_.pop_back();
}

bool IdleWatcher::Sleeper::hasNews() const noexcept {
  return *stop || *orders || !looksIdle(queue);
}

void IdleWatcher::Sleeper::prefetch() const noexcept {
  queue.prefetch();
  __builtin_prefetch(stop);
  __builtin_prefetch(orders);
}

IdlePlace::IdlePlace(IdleWatcher& watcher, std::function<bool()> mayBeLost)
    : watcher_(watcher), mayBeLost_(std::move(mayBeLost)), headerPage_(watcher.addPlace()) {}

IdlePlace::~IdlePlace() { watcher_.removePlace(headerPage_); }

void IdlePlace::attach(const std::string& queue, const QueueObject& object) noexcept {
  isHeaderMapped_ = HeaderPages::map(headerPage_, object.descriptor());
  watcher_.opens_.listenTo(queue);
}

void IdlePlace::detach() noexcept {
  if (isHeaderMapped_) HeaderPages::unmap(headerPage_);
  isHeaderMapped_ = false;
}

QueueView::Glance IdlePlace::glanceAt(const QueueView& queue) const noexcept {
  return isHeaderMapped_ ? QueueView::Glance(headerPage_) : QueueView::Glance(queue);
}

bool IdlePlace::await(const Idleness& idleness, Clock::time_point deadline) noexcept {
  std::unique_lock<std::mutex> lock(mutex_);
  isAwake_ = false;
  lock.unlock();
  watcher_.add({glanceAt(idleness.queue), &idleness.stop, &idleness.orders,
                idleness.lastSign + kRecently, this});
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
