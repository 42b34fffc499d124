#include "status/CleanPlan.h"

#include <exception>
#include <korvex/receiver/Leftovers.h>
#include <korvex/receiver/QueueSurvey.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/Printable.h"
#include "status/PairState.h"
#include "status/QueueUsers.h"

namespace korvex::tool {
namespace {

using Maker = receiver::HalfMadeQueue::Maker;

std::string ownerObstacle(uid_t owner) {
  if (owner == ::geteuid()) return "";
  return "it belongs to user " + std::to_string(owner) + ", expected user " +
         std::to_string(::geteuid());
}

std::string queueObstacle(const QueueState& queue) {
  if (!queue.exists()) return "";
  if (!S_ISREG(queue.object.mode)) {
    return common::printable(queue.name) + " is " + kindText(queue.object.mode) + ", not a queue";
  }
  return ownerObstacle(queue.object.user);
}

std::string userObstacle(const PairState& pair, const QueueUsers& users) {
  const pid_t ofReplies = users.of(pair.replies.object);
  const pid_t user = ofReplies != 0 ? ofReplies : users.of(pair.batches.object);
  return user == 0 ? "" : runnerOf(user).text() + " has it open; end that process first";
}

/// A daemon rarely leaves only one of its two queues, and other programs have queues too.
std::string pairObstacle(const PairState& pair, bool isNamed, const QueueUsers& users) {
  if (pair.service == PairState::Service::Served) return pair.server.text() + " serves it";
  std::string inUse = userObstacle(pair, users);
  if (!inUse.empty()) return inUse;
  const bool isWhole = pair.batches.exists() && pair.replies.exists();
  if (!isWhole && !isNamed) {
    return "only one of its two queues is there, so it may be another program's; --queue removes "
           "it";
  }
  const auto isUnfinished = [](const QueueState& queue) {
    return queue.condition == receiver::QueueStatus::Condition::Unfinished;
  };
  if (!isNamed && (isUnfinished(pair.batches) || isUnfinished(pair.replies))) {
    return "it was never finished, so it may be another program's; --queue removes it";
  }
  const std::string obstacle = queueObstacle(pair.batches);
  return obstacle.empty() ? queueObstacle(pair.replies) : obstacle;
}

std::string waitingText(const QueueState& batches) {
  if (batches.condition != receiver::QueueStatus::Condition::Sound) {
    return "its messages cannot be counted";
  }
  return "messages waiting: " + std::to_string(batches.messages) + " (" +
         common::byteText(static_cast<double>(batches.bytes)) + ")";
}

CleanItem itemOf(const PairState& pair, bool isNamed, const QueueUsers& users) {
  const bool isKnown = pair.service != PairState::Service::Unknown;
  const std::string found = std::string(isKnown ? "no" : "no visible") + " process serves it, " +
                            waitingText(pair.batches);
  return {pair.name, CleanItem::Kind::Pair, found, pairObstacle(pair, isNamed, users)};
}

std::string makerObstacle(const receiver::HalfMadeQueue& queue) {
  switch (queue.maker) {
    case Maker::Alive:
      return runnerOf(queue.process).text() + " is making it";
    case Maker::Unknown:
      return "its process cannot be seen from here";
    case Maker::Dead:
      break;
  }
  return ownerObstacle(receiver::QueueStatus(queue.name).object().user);
}

CleanItem itemOf(const receiver::HalfMadeQueue& queue) {
  return {queue.name, CleanItem::Kind::HalfMade,
          "half made by process " + std::to_string(queue.process) + ", which is dead",
          makerObstacle(queue)};
}

/// A daemon or a producer may have come since the plan was made. What is served is refused below.
void removePair(CleanItem& item, const receiver::ServingProcesses& serving,
                const QueueUsers& users) {
  const PairState pair = lookAtPair(item.name, serving);
  if (pair.service != PairState::Service::Served) item.obstacle = userObstacle(pair, users);
  if (!item.obstacle.empty()) return;
  try {
    receiver::removeDeadPair(item.name);
    item.isRemoved = true;
  } catch (const std::exception& error) {
    item.obstacle = common::printable(error.what());
  }
}

void removeHalfMade(CleanItem& item) {
  item.isRemoved = receiver::removeHalfMadeQueue(item.name);
  if (!item.isRemoved) item.obstacle = "it could not be removed";
}

}  // namespace

CleanPlan planCleaning(const std::string& queue) {
  const receiver::ServingProcesses serving;
  const QueueUsers users;
  CleanPlan plan;
  plan.unexamined = users.unexamined();
  if (!queue.empty()) {
    const PairState pair = lookAtPair(queue, serving);
    if (pair.exists()) plan.items.push_back(itemOf(pair, true, users));
    return plan;
  }
  for (const std::string& name : receiver::pairNames()) {
    plan.items.push_back(itemOf(lookAtPair(name, serving), false, users));
  }
  for (const auto& halfMade : receiver::halfMadeQueues()) plan.items.push_back(itemOf(halfMade));
  return plan;
}

void removeItems(std::vector<CleanItem>& items) {
  const receiver::ServingProcesses serving;
  const QueueUsers users;
  for (CleanItem& item : items) {
    if (!item.isToGo()) continue;
    if (item.kind == CleanItem::Kind::Pair) {
      removePair(item, serving, users);
    } else {
      removeHalfMade(item);
    }
  }
}

}  // namespace korvex::tool
