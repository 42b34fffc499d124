#ifndef KORVEX_TOOL_QUEUE_USERS_H
#define KORVEX_TOOL_QUEUE_USERS_H

#include <cstddef>
#include <korvex/receiver/QueueStatus.h>
#include <map>
#include <sys/types.h>
#include <utility>

namespace korvex::tool {

/// The processes that use queues, as one look at /proc finds them: producers, and daemons that do
/// not claim what they serve. They have mapped it for writing; a process that only looks at a queue
/// does not.
class QueueUsers {
 public:
  QueueUsers();

  /// One of those that use it; 0 when nobody who can be seen does.
  pid_t of(const receiver::QueueStatus::Object& queue) const;

  /// How many processes this user may not examine: each may use any queue that it can open.
  std::size_t unexamined() const noexcept { return unexamined_; }

 private:
  void examine(pid_t process);

  std::map<std::pair<dev_t, ino_t>, pid_t> users_;
  std::size_t unexamined_ = 0;
};

}  // namespace korvex::tool

#endif
