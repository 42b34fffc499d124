#ifndef KORVEX_RECEIVER_LIMITS_H
#define KORVEX_RECEIVER_LIMITS_H

#include <cstddef>

namespace korvex::receiver {

/// How much a queue holds.
struct Limits {
  static constexpr std::size_t kMostMessages = 65536;
  static constexpr std::size_t kSmallestMessage = 57;  ///< a batch with one record of one byte
  static constexpr std::size_t kLargestMessage = std::size_t{1} << 30;

  std::size_t messages = 0;
  std::size_t messageSize = 0;  ///< bytes of the largest message
};

}  // namespace korvex::receiver

#endif
