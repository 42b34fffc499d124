#ifndef KORVEX_RECEIVER_OPEN_EVENTS_H
#define KORVEX_RECEIVER_OPEN_EVENTS_H

#include <chrono>
#include <string>

namespace korvex::receiver {

/// Hears that somebody opened a queue, which every producer does before its first message.
///
/// A hint that a message may come soon. The system may have no event to give, or give some for
/// those who only look.
class OpenEvents {
 public:
  OpenEvents() noexcept;
  ~OpenEvents();
  OpenEvents(const OpenEvents&) = delete;
  OpenEvents& operator=(const OpenEvents&) = delete;

  /// Listens for as long as the object under this name exists.
  void listenTo(const std::string& queue) noexcept;

  /// Waits for an event, and takes all there are. False when there was none in that time.
  bool await(std::chrono::nanoseconds patience) noexcept;

 private:
  const int descriptor_;  ///< -1 where the system has none: nothing is heard then
};

}  // namespace korvex::receiver

#endif
