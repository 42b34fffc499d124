#ifndef TESTS_SUPPORT_QUEUES_H
#define TESTS_SUPPORT_QUEUES_H

#include <atomic>
#include <string>
#include <time.h>
#include <unistd.h>

namespace korvex::test {

/// A name that no other test, process or run uses.
inline std::string uniqueQueueName(const std::string& hint = "test") {
  static std::atomic<unsigned> count{0};
  timespec now = {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return "korvex-" + hint + "-" + std::to_string(::getpid()) + "-" + std::to_string(now.tv_sec) +
         "-" + std::to_string(now.tv_nsec) + "-" + std::to_string(++count);
}

/// Whether a shared-memory object has this name.
bool queueExists(const std::string& name);

/// Removes the names of a pair of queues at the end, even if a killed daemon left them.
class QueueRemover {
 public:
  explicit QueueRemover(std::string name) : name_(std::move(name)) {}
  ~QueueRemover();
  QueueRemover(const QueueRemover&) = delete;
  QueueRemover& operator=(const QueueRemover&) = delete;

 private:
  std::string name_;
};

/// Makes a child process take the queue's lock and die with it.
void dieHoldingLockOf(const std::string& queue);

}  // namespace korvex::test

#endif
