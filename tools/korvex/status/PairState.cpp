#include "status/PairState.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <korvex/ShmWriter.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "common/Printable.h"

namespace korvex::tool {
namespace {

using Condition = receiver::QueueStatus::Condition;

QueueState::Owner ownerOf(const receiver::QueueStatus& queue, const Runner& owner) {
  if (queue.isLockOwnerGone()) return QueueState::Owner::Dead;
  return owner.program.empty() ? QueueState::Owner::Unknown : QueueState::Owner::Alive;
}

void addNumbers(QueueState& state, const receiver::QueueStatus& queue) {
  state.limits = queue.limits();
  state.messages = queue.messages();
  state.bytes = queue.waitingBytes();
  state.isLocked = queue.looksLocked();
  if (!state.isLocked) return;
  state.lockedBy = runnerOf(queue.lockOwner());
  state.lockOwner = ownerOf(queue, state.lockedBy);
}

QueueState lookAtQueue(const std::string& name, const receiver::ServingProcesses& serving) {
  const receiver::QueueStatus queue(name);
  QueueState state;
  state.name = name;
  state.object = queue.object();
  state.condition = queue.condition();
  state.systemError = queue.systemError();
  state.server = state.exists() ? serving.of(state.object) : 0;
  if (state.condition == Condition::Sound) addNumbers(state, queue);
  return state;
}

/// A daemon serves both of them, or lost one of them.
void findServer(PairState& pair) {
  const pid_t server = std::max(pair.batches.server.value_or(0), pair.replies.server.value_or(0));
  const bool isKnown = pair.batches.server && pair.replies.server;
  if (server != 0) {
    pair.service = PairState::Service::Served;
    pair.server = runnerOf(server);
  } else if (isKnown) {
    pair.service = PairState::Service::Abandoned;
  }
}

/// Why it cannot be used; empty when it can.
std::string defectOf(const QueueState& queue) {
  if (!queue.exists() && queue.systemError != EACCES) return "is missing";
  if (!S_ISREG(queue.object.mode)) return "is " + kindText(queue.object.mode) + ", not a queue";
  switch (queue.condition) {
    case Condition::Unreachable:
      return "cannot be opened by user " + std::to_string(::geteuid()) + ": " +
             std::generic_category().message(queue.systemError);
    case Condition::Unfinished:
      return "is half made";
    case Condition::Damaged:
      return "is damaged, or not a queue";
    case Condition::Busy:
    case Condition::Sound:
      break;
  }
  return "";
}

void addDefect(std::vector<std::string>& problems, const QueueState& queue) {
  const std::string defect = defectOf(queue);
  if (!defect.empty()) problems.push_back(common::printable(queue.name) + " " + defect);
}

void addLock(std::vector<std::string>& problems, const QueueState& queue) {
  if (queue.lockOwner != QueueState::Owner::Dead) return;
  problems.push_back("the lock of " + common::printable(queue.name) + " is held by thread " +
                     std::to_string(queue.lockedBy.id) + ", which is dead");
}

void addFill(std::vector<std::string>& problems, const QueueState& queue) {
  if (!queue.isFull()) return;
  problems.push_back(common::printable(queue.name) + " is full: " + std::to_string(queue.messages) +
                     " messages wait");
}

}  // namespace

std::string Runner::text() const {
  const std::string number = std::to_string(id);
  return program.empty() ? number : common::printable(program) + " (" + number + ")";
}

Runner runnerOf(pid_t id) {
  Runner runner{id, {}};
  std::ifstream name("/proc/" + std::to_string(id) + "/comm");
  std::getline(name, runner.program);
  return runner;
}

std::string kindText(mode_t mode) {
  if (S_ISDIR(mode)) return "a folder";
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISFIFO(mode)) return "a pipe";
  if (S_ISSOCK(mode)) return "a socket";
  return S_ISREG(mode) ? "a file" : "a device";
}

std::vector<std::string> PairState::problems() const {
  std::vector<std::string> found;
  if (service == Service::Abandoned) {
    found.emplace_back(
        "no living process serves it: start korvexd with --replace, or remove it "
        "with korvex clean");
  }
  for (const QueueState* queue : {&batches, &replies}) {
    addDefect(found, *queue);
    addLock(found, *queue);
    addFill(found, *queue);
  }
  return found;
}

PairState lookAtPair(const std::string& name, const receiver::ServingProcesses& serving) {
  PairState pair;
  pair.name = name;
  pair.batches = lookAtQueue(name, serving);
  pair.replies = lookAtQueue(getMessageQueueResponseName(name), serving);
  findServer(pair);
  return pair;
}

}  // namespace korvex::tool
