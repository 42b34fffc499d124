#ifndef KORVEX_RECEIVER_OPEN_EVENTS_H
#define KORVEX_RECEIVER_OPEN_EVENTS_H

#include <chrono>
#include <string>

namespace korvex::receiver {

/// Tells when a process opens a queue, as every producer does before its first message.
///
/// Only a hint: the system may offer no such events, and programs that only inspect a queue cause
/// them too.
class OpenEvents {
 public:
  OpenEvents() noexcept;
  ~OpenEvents();
  OpenEvents(const OpenEvents&) = delete;
  OpenEvents& operator=(const OpenEvents&) = delete;

  /// Listens as long as the object that has this name now exists.
  void listenTo(const std::string& queue) noexcept;

  /// Waits for an event, and takes all there are. False if there was none in that time.
  bool await(std::chrono::nanoseconds patience) noexcept;

 private:
  const int descriptor_;  ///< -1 if the system offers none
};

}  // namespace korvex::receiver

#endif
