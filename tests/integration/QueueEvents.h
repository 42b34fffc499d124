#ifndef TESTS_INTEGRATION_QUEUE_EVENTS_H
#define TESTS_INTEGRATION_QUEUE_EVENTS_H

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace korvex::test::strange {

/// What becomes of a daemon's pair of queues.
enum class After {
  Untouched,   ///< nothing: it goes on serving
  ServedAnew,  ///< it makes both queues again
  Blocked      ///< it would, but something that is not its own lies there
};

/// Something that somebody does to a queue in use.
struct Event {
  const char* name;
  std::function<void(const std::string& queue)> happen;
  /// What a writer meets that has the queue open, "CALL: ERROR", or "works".
  std::string asSendQueue;
  std::string asResponseQueue;
  /// What a daemon says that serves it, a regular expression.
  std::string lost;
  After after;
};

inline void PrintTo(const Event& event, std::ostream* stream) { *stream << event.name; }

/// The table.
const std::vector<Event>& events();

}  // namespace korvex::test::strange

#endif
