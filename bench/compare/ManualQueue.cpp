// The queue library used as its manual shows it: a timed send and a receive that block in its own
// condition variables. A shared object of its own, because it is built without the lock timeout
// that the library sets, and the two must not meet in one binary.
#include "ManualQueue.h"

#include <algorithm>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <stdexcept>
#include <utility>

namespace bench {
namespace {

namespace ipc = boost::interprocess;
namespace time = boost::posix_time;

constexpr unsigned kTimeoutSeconds = 60;
constexpr unsigned kPriority = 1;

class BoostQueue : public ManualQueue {
 public:
  BoostQueue(const char* name, std::size_t depth, std::size_t messageSize)
      : queue_(ipc::create_only, name, depth, messageSize) {}
  explicit BoostQueue(const char* name) : queue_(ipc::open_only, name) {}

  void send(const void* data, std::size_t size) override {
    const auto deadline =
        time::second_clock::universal_time() + time::seconds(long{kTimeoutSeconds});
    if (!queue_.timed_send(data, size, kPriority, deadline)) {
      throw std::runtime_error("the queue stayed full");
    }
  }

  std::size_t receive(void* buffer, std::size_t capacity) override {
    ipc::message_queue::size_type size = 0;
    unsigned priority = 0;
    queue_.receive(buffer, capacity, size, priority);
    return size;
  }

 private:
  ipc::message_queue queue_;
};

}  // namespace

ManualQueue* createManualQueue(const char* name, std::size_t depth, std::size_t messageSize) {
  return new BoostQueue(name, depth, messageSize);
}

ManualQueue* openManualQueue(const char* name) { return new BoostQueue(name); }

void removeManualQueue(const char* name) { ipc::message_queue::remove(name); }

}  // namespace bench
