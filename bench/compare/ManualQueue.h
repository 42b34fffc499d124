#ifndef BENCH_COMPARE_MANUAL_QUEUE_H
#define BENCH_COMPARE_MANUAL_QUEUE_H

#include <cstddef>

#define BENCH_MANUAL_QUEUE_EXPORT __attribute__((visibility("default")))

namespace bench {

/// The queue library with its own blocking calls.
class ManualQueue {
 public:
  virtual ~ManualQueue() = default;
  virtual void send(const void* data, std::size_t size) = 0;
  virtual std::size_t receive(void* buffer, std::size_t capacity) = 0;
};

/// The caller owns the result.
BENCH_MANUAL_QUEUE_EXPORT ManualQueue* createManualQueue(const char* name, std::size_t depth,
                                                         std::size_t messageSize);
BENCH_MANUAL_QUEUE_EXPORT ManualQueue* openManualQueue(const char* name);
BENCH_MANUAL_QUEUE_EXPORT void removeManualQueue(const char* name);

}  // namespace bench

#endif
