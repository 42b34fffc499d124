#ifndef TESTS_INTEGRATION_SUPPORT_QUEUES_H
#define TESTS_INTEGRATION_SUPPORT_QUEUES_H

#include <string>

namespace test_support {

/// A name that no other test and no other run uses.
std::string uniqueQueueName();

/// Whether a shared-memory object has this name.
bool queueExists(const std::string& name);

/// Takes the names of a pair of queues away at the end, whatever a killed daemon left.
class QueueRemover {
 public:
  explicit QueueRemover(std::string name) : name_(std::move(name)) {}
  ~QueueRemover();
  QueueRemover(const QueueRemover&) = delete;
  QueueRemover& operator=(const QueueRemover&) = delete;

 private:
  std::string name_;
};

/// Has a process of its own take the queue's lock and die with it.
void dieHoldingLockOf(const std::string& queue);

}  // namespace test_support

#endif
