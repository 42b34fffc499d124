#ifndef TESTS_UNIT_KORVEX_PAIRS_H
#define TESTS_UNIT_KORVEX_PAIRS_H

#include <string>
#include <sys/stat.h>

#include "status/PairState.h"

namespace korvex::test {

constexpr unsigned kNameless = 60123;  ///< the number of a user and a group without names

inline tool::QueueState soundQueue(const std::string& name) {
  tool::QueueState queue;
  queue.name = name;
  queue.object = {1, 2, 0, kNameless, S_IFREG | 0640, 5000};
  queue.condition = receiver::QueueStatus::Condition::Sound;
  queue.limits.messages = 10;
  queue.limits.messageSize = 4096;
  queue.messages = 2;
  queue.bytes = 1500;
  return queue;
}

inline tool::PairState pairOf(const std::string& name, tool::PairState::Service service) {
  tool::PairState pair;
  pair.name = name;
  pair.batches = soundQueue(name);
  pair.replies = soundQueue(name + "Response");
  pair.service = service;
  if (service == tool::PairState::Service::Served) pair.server = {7, "korvexd"};
  return pair;
}

}  // namespace korvex::test

#endif
