#include "korvexd/exec/ExecSink.h"

#include <algorithm>
#include <cerrno>
#include <korvex/receiver/SystemError.h>
#include <stdexcept>
#include <time.h>
#include <utility>

#include "korvexd/exec/ExecStore.h"

namespace korvexd {

namespace receiver = korvex::receiver;
namespace {

using keeper::Event;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kLongestWait{100};  // how late the daemon's end may be noticed
constexpr seconds kPatienceWithStart{30};
constexpr seconds kPatienceWithDeath{1};  // then the store waits instead of the queue
constexpr seconds kPatienceAtTheEnd{3};   // of the daemon
constexpr milliseconds kLongestPause{20};

class EngineFailed : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

void sleepFor(milliseconds time) noexcept {
  const timespec pause = {0, static_cast<long>(time.count()) * 1000000};
  ::nanosleep(&pause, nullptr);
}

std::string secondsText(seconds time) { return std::to_string(time.count()) + " seconds"; }

}  // namespace

ExecSink::ExecSink(ExecStore& store, std::unique_ptr<Engine> engine, Settings settings)
    : store_(store), engine_(std::move(engine)), settings_(std::move(settings)) {}

ExecSink::~ExecSink() {
  if (engine_ == nullptr) return;
  engine_->kill();
  letGo();
}

void ExecSink::awaitStart() {
  const auto deadline = Clock::now() + kPatienceWithStart;
  while (!engine_->hasStarted() && !engine_->end() && !engine_->isAlone()) {
    if (Clock::now() >= deadline || isOutOfPatience()) {
      throw receiver::SystemError("starting the engine '" + settings_.program + "'", ETIMEDOUT);
    }
    engine_->wait(Engine::For::News, kLongestWait);
    noteEnding(settings_.isEnding());
  }
  if (!engine_->hasStarted()) throwNotStarted();
}

void ExecSink::write(const unsigned char* data, std::size_t size) {
  check();
  while (size > 0) {
    const std::size_t taken = offer(data, size);
    data += taken;
    size -= taken;
    if (size == 0) return;
    // Here as well: with an engine that keeps taking a little, awaitRoom() is never called.
    throwIfOutOfPatience();
    if (taken == 0) awaitRoom();
  }
}

std::size_t ExecSink::offer(const unsigned char* data, std::size_t size) {
  try {
    return engine_->offer(data, size);
  } catch (const receiver::SystemError& error) {
    if (error.number() == EPIPE) throwClosedInput();
    throw;
  }
}

/// An engine may be arbitrarily slow as long as it keeps reading.
void ExecSink::awaitRoom() {
  const auto deadline = Clock::now() + settings_.timeout;
  while (!engine_->wait(Engine::For::Room, kLongestWait)) {
    throwIfItEnded();
    throwIfOutOfPatience();
    if (Clock::now() >= deadline) {
      fail(EngineFailure::TookNothing,
           "the engine took nothing for " + secondsText(settings_.timeout));
    }
  }
}

void ExecSink::throwIfOutOfPatience() {
  noteEnding(settings_.isEnding());
  if (isOutOfPatience()) fail(EngineFailure::DaemonEnded, "the daemon ended");
}

void ExecSink::check() {
  engine_->look();
  throwIfItEnded();
}

void ExecSink::throwIfItEnded() {
  if (engine_->end() || engine_->isAlone()) throwEnd();
}

/// Mostly because it is about to exit, and then its exit code says more.
void ExecSink::throwClosedInput() {
  const auto deadline = Clock::now() + kPatienceWithDeath;
  while (Clock::now() < deadline) {
    check();
    engine_->wait(Engine::For::News, kLongestWait);
  }
  fail(EngineFailure::ClosedInput, withLastError("the engine closed its input before the end"));
}

void ExecSink::complete(const receiver::StreamSummary&,
                        const receiver::StillFinishing& stillFinishing) {
  check();
  engine_->announceComplete();
  const auto deadline = Clock::now() + settings_.timeout + kPatienceAtTheEnd;
  while (!engine_->end() && !engine_->isAlone()) {
    noteEnding(!stillFinishing());
    if (isOutOfPatience()) {
      mayFinish_ = true;
      fail(EngineFailure::DaemonEnded,
           "unknown outcome: the daemon ended while the engine was finishing");
    }
    if (Clock::now() >= deadline) {
      fail(EngineFailure::KeeperLost, "the engine's keeper does not answer");
    }
    engine_->wait(Engine::For::News, kLongestWait);
  }
  if (defectOfEnd()) throwEnd();
  letGo();
}

void ExecSink::abandon(const receiver::StreamSummary&, const std::string&) {
  if (!mayFinish_) engine_->kill();
  letGo();
}

/// Ends the engine's input, but only once nothing of the engine is left; if that takes long, the
/// store takes over.
void ExecSink::letGo() noexcept {
  const auto deadline = Clock::now() + (mayFinish_ ? seconds(0) : kPatienceWithDeath);
  try {
    for (milliseconds pause(1);; pause = std::min(2 * pause, kLongestPause)) {
      if (engine_->isGone()) return engine_.reset();
      if (Clock::now() >= deadline) break;
      sleepFor(pause);
    }
    store_.lookAfter(std::move(engine_));
  } catch (const std::exception&) {
    // No memory to track it: its input stays open for the daemon's lifetime.
    static_cast<void>(engine_.release());
  }
}

void ExecSink::noteEnding(bool isEnding) {
  if (isEnding && !endingSince_) endingSince_ = Clock::now();
}

bool ExecSink::isOutOfPatience() const {
  return endingSince_ && Clock::now() - *endingSince_ >= kPatienceAtTheEnd;
}

void ExecSink::throwNotStarted() const {
  const auto& end = engine_->end();
  if (end && end->event == Event::NotStarted) {
    throw receiver::SystemError("starting the engine '" + settings_.program + "'", end->value);
  }
  const auto defect = defectOfEnd();
  throw EngineFailed(withLastError(defect ? defect->text : "the engine did not start"));
}

void ExecSink::throwEnd() {
  const Defect defect = defectOfEnd().value();
  fail(defect.failure, withLastError(defect.text));
}

void ExecSink::fail(EngineFailure failure, const std::string& text) {
  store_.noteFailure(settings_.queue, failure);
  throw EngineFailed(text);
}

std::string ExecSink::withLastError(const std::string& text) const {
  const std::string last = engine_->lastError();
  return last.empty() ? text : text + ": " + last;
}

/// None for an engine that has stored the stream.
std::optional<ExecSink::Defect> ExecSink::defectOfEnd() const {
  const auto& end = engine_->end();
  if (!end) return Defect{EngineFailure::KeeperLost, "the engine's keeper was killed"};
  switch (end->event) {
    case Event::Killed:
      return Defect{EngineFailure::Killed,
                    "the engine was killed by signal " + std::to_string(end->value)};
    case Event::TimedOut:
      return Defect{EngineFailure::TimedOut,
                    "the engine did not finish within " + secondsText(settings_.timeout)};
    case Event::LostInput:
      return Defect{EngineFailure::KeeperLost,
                    receiver::SystemError("checking the engine's input", end->value).what()};
    case Event::Started:
    case Event::NotStarted:
    case Event::Exited:
      break;
  }
  if (end->value != 0) {
    return Defect{EngineFailure::ExitCode,
                  "the engine exited with code " + std::to_string(end->value)};
  }
  if (!end->isComplete) {
    return Defect{EngineFailure::EarlyExit,
                  "the engine exited with code 0 before the end of its input"};
  }
  if (end->unread == 0) return std::nullopt;
  return Defect{EngineFailure::EarlyExit, "the engine exited with code 0, but left " +
                                              std::to_string(end->unread) +
                                              " bytes of its input unread"};
}

std::string ExecSink::place() const {
  return "engine '" + settings_.program + "', stream " + settings_.stream;
}

}  // namespace korvexd
