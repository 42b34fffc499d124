#include "QueueLane.h"

#include <algorithm>
#include <signal.h>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace korvex::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr milliseconds kStopLength{1300};  // longer than any call of a producer may wait
constexpr milliseconds kStartPatience{10000};
// A producer that meets no daemon spends three calls at most. The rest is for slow machines.
constexpr milliseconds kHangPatience = 3 * kCallLimit + milliseconds(15000);
constexpr milliseconds kServedPatience{1000};
constexpr milliseconds kPeriod{1};
constexpr std::uint64_t kMiB = 1 << 20;

double msOf(Call::Clock::duration length) {
  return std::chrono::duration<double, std::milli>(length).count();
}

/// How much of the first lies in the second.
Call::Clock::duration overlapOf(const Call& first, const Call& second) {
  const auto shared = std::min(first.end, second.end) - std::max(first.begin, second.begin);
  return std::max(shared, Call::Clock::duration::zero());
}

}  // namespace

QueueLane::QueueLane(const Settings& settings, const Stalls& stalls)
    : Lane(settings), stalls_(stalls) {
  tally_.outcomes = {{kLateInStall, 0}, {kNextLateInStall, 0}, {kTimedOutInStop, 0}};
}

std::vector<std::string> QueueLane::daemonCommand() const {
  return {settings_.daemon, "--output", (folder_ / "store").string()};
}

QueueLane::Running QueueLane::startProducer(std::uint64_t streams, std::uint64_t size) {
  const Load load = {settings_.name, nextNumber_, streams, size};
  nextNumber_ += streams;
  const std::string file = (folder_ / ("said-" + std::to_string(load.number))).string();
  return {std::make_unique<Child>(
              std::vector<std::string>{settings_.self, "--produce", load.queue, "--number",
                                       std::to_string(load.number), "--streams",
                                       std::to_string(streams), "--size", std::to_string(size)},
              STDOUT_FILENO, file),
          load,
          index_,
          Clock::now(),
          {}};
}

void QueueLane::strike() {
  // A large stream fills the queue; many small ones keep both directions busy.
  const bool isLarge = between(0, 2) != 0;
  Running producer = isLarge ? startProducer(1, 8 * between(2, 8 * kMiB / 8))
                             : startProducer(1000, 8 * between(2, 1000));
  const Clock::time_point served = befall(producer);
  ++tally_.kills;
  sendNext(served);
  // Before the store: what a survivor claims is there by the time it has ended, not earlier.
  finishSurvivors();
  lookAtStore();
  lookAtClaims();
}

/// Returns since when the daemon serves and the queue is free for the next stream.
Lane::Clock::time_point QueueLane::befall(Running& producer) {
  const std::uint64_t kind = between(0, 99);
  std::this_thread::sleep_for(std::chrono::microseconds(between(0, 25000)));
  if (kind < 48) {
    killProducer(producer);
  } else if (kind < 78) {
    killDaemon(producer);
  } else if (kind < 95) {
    killBoth(producer);
  } else if (kind < 97) {
    stopProducer(producer);
  } else {
    return stopDaemon(producer);
  }
  return Clock::now();
}

/// Returns while the daemon makes its queues, or shortly after.
void QueueLane::awaitHalfMadeQueue() {
  const auto end = Clock::now() + kStartPatience;
  while (!hasHalfMadeQueue() && !isServing()) {
    if (daemon_->hasEnded() || Clock::now() >= end) return;
  }
}

/// Now and then the new one is killed as well, while it makes its queues.
void QueueLane::restartDaemon() {
  startDaemon();
  if (between(0, 3) == 0) {
    awaitHalfMadeQueue();
    daemon_->killNow();
    count("  its successor killed while it starts");
    startDaemon();
  }
  awaitServing();
}

void QueueLane::killProducer(Running& producer) {
  producer.child->killNow();
  count("producer killed");
}

void QueueLane::killDaemon(Running& producer) {
  daemon_->killNow();
  count("daemon killed");
  survivors_.push_back(std::move(producer));
  restartDaemon();
}

void QueueLane::killBoth(Running& producer) {
  producer.child->signal(SIGKILL);
  daemon_->killNow();
  producer.child->killNow();
  count("both killed");
  restartDaemon();
}

void QueueLane::stopProducer(Running& producer) {
  producer.child->signal(SIGSTOP);
  producer.stop.begin = Clock::now();
  std::this_thread::sleep_for(kStopLength);
  producer.stop.end = Clock::now();
  producer.child->signal(SIGCONT);
  count("producer stopped");
  // It would go on for long with many streams, and one queue serves one producer.
  std::this_thread::sleep_for(kPeriod);
  producer.child->signal(kEndSignal);
  finishProducer(producer, "producer stopped", kHangPatience);
}

/// A producer that gave up leaves one batch and a close at most, which take no time once the daemon
/// goes on: the next stream's second begins right then. One that got through may have had more to
/// send, and one queue serves one producer: after it, the second begins with its end.
Lane::Clock::time_point QueueLane::stopDaemon(Running& producer) {
  daemon_->signal(SIGSTOP);
  // One that was through before meets nothing; a stream larger than the queue has to wait.
  if (producer.child->hasEnded()) {
    finishProducer(producer, "daemon stopped later", kHangPatience);
    producer = startProducer(1, 8 * kMiB);
  }
  std::this_thread::sleep_for(kStopLength);
  const auto goesOn = Clock::now();
  daemon_->signal(SIGCONT);
  count("daemon stopped");
  producer.child->signal(kEndSignal);
  return finishProducer(producer, "daemon stopped", kHangPatience) == "complete" ? Clock::now()
                                                                                 : goesOn;
}

/// Waits for its end and looks at what it says of itself. Returns its outcome, if it has one.
std::string QueueLane::finishProducer(Running& producer, const std::string& prefix,
                                      milliseconds patience) {
  const std::optional<int> code = producer.child->wait(patience);
  if (!code) {
    producer.child->killNow();
    complain(producer.index, "a producer did not end");
    return "";
  }
  Ending ending;
  std::istringstream said(producer.child->said());
  if (*code != 0 || !(said >> ending)) {
    complain(producer.index, "a producer ended with " + std::to_string(*code));
    return "";
  }
  count("  " + prefix + ": " + ending.outcome);
  for (std::uint64_t i = 0; i < ending.receipts; ++i) claimed_.insert(producer.load.number + i);
  claims_ += ending.receipts;
  for (const Call& call : ending.slowCalls) judge(producer, call);
  return ending.outcome;
}

/// Only the part of a stop that fell into the call is forgiven.
void QueueLane::judge(const Running& producer, const Call& call) {
  const auto taken = call.end - call.begin - overlapOf(call, producer.stop);
  const double late = msOf(taken - kCallLimit);
  if (late <= 0) return;
  if (stalls_.longestMsSince(call.begin) >= late) return count(kLateInStall);
  complain(producer.index, "a call took " + std::to_string(msOf(taken)) + " ms, " +
                               std::to_string(late) + " ms too long");
}

/// Looks at those that have ended, and at those that should have long ago.
void QueueLane::finishSurvivors() {
  auto survivor = survivors_.begin();
  while (survivor != survivors_.end()) {
    const bool isDue = Clock::now() - survivor->start >= kHangPatience;
    if (!survivor->child->hasEnded() && !isDue) {
      ++survivor;
      continue;
    }
    finishProducer(*survivor, "daemon killed", milliseconds(0));
    survivor = survivors_.erase(survivor);
  }
}

void QueueLane::awaitSurvivors() {
  for (const Running& survivor : survivors_) survivor.child->signal(kEndSignal);
  const auto end = Clock::now() + kHangPatience;
  for (Running& survivor : survivors_) {
    const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
    finishProducer(survivor, "daemon killed", left);
  }
  survivors_.clear();
}

/// The next stream must be taken within a second of the daemon's service. One that was begun on
/// queues that a dead producer had locked is lost with them; then the next one's second begins when
/// the daemon has made them again.
void QueueLane::sendNext(Clock::time_point served) {
  const auto end = Clock::now() + 5 * kServedPatience;
  std::size_t renewals = timesServedAnew();
  while (!tryNext()) {
    if (Clock::now() >= end) {
      return complain("the next stream was not taken; the daemon says: " + daemon_->said());
    }
    if (timesServedAnew() == renewals) continue;
    renewals = timesServedAnew();
    served = Clock::now();
    count("  next stream met lost queues");
  }
  const auto taken = Clock::now() - served;
  if (taken <= kServedPatience) return;
  if (stalls_.longestMsSince(served) >= msOf(taken - kServedPatience)) {
    return count(kNextLateInStall);
  }
  complain("the next stream took " + std::to_string(msOf(taken)) + " ms");
}

/// How often the daemon that runs now had to make its queues again.
std::size_t QueueLane::timesServedAnew() const {
  static const std::string kLine = ": served again";
  const std::string said = daemon_->said();
  std::size_t times = 0;
  for (auto at = said.find(kLine); at != said.npos; at = said.find(kLine, at + 1)) ++times;
  return times;
}

/// Whether the daemon stored it, and says so.
bool QueueLane::tryNext() {
  Running producer = startProducer(1, 8 * between(2, 20000));
  const std::uint64_t before = claims_;
  finishProducer(producer, "next stream", kHangPatience);
  return claims_ != before;
}

void QueueLane::lookAtEnd() {
  lookAtStore();
  lookAtClaims();
}

}  // namespace korvex::test
