#ifndef KORVEX_RECEIVER_LIMITS_H
#define KORVEX_RECEIVER_LIMITS_H

#include <cstddef>
#include <cstdint>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// How much a queue holds. The constants are the range that korvexd allows; a receiver takes any
/// limits that fit into memory.
struct Limits {
  static constexpr std::size_t kMostMessages = 65536;  ///< that a queue may hold
  static constexpr std::size_t kSmallestMessage = 57;  ///< a batch with one record of one byte
  static constexpr std::size_t kLargestMessage = std::size_t{1} << 30;  ///< 1 GiB

  std::size_t messages = 0;     ///< the most that may wait
  std::size_t messageSize = 0;  ///< bytes of the largest message
};

/// How many bytes of /dev/shm a pair of queues takes, given the limits of the one for batches; 0
/// for limits that no queue can have.
KORVEX_RECEIVER_EXPORT std::uint64_t sharedMemoryFor(const Limits& limits) noexcept;

}  // namespace korvex::receiver

#endif
