#include "idle/OpenEvents.h"

#include <exception>
#include <limits.h>
#include <poll.h>
#include <sys/inotify.h>
#include <time.h>
#include <unistd.h>

#include "queues/QueueObject.h"

namespace korvex::receiver {

OpenEvents::OpenEvents() noexcept : descriptor_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

OpenEvents::~OpenEvents() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

/// The kernel drops the watch together with the object.
void OpenEvents::listenTo(const std::string& queue) noexcept {
  if (descriptor_ < 0) return;
  try {
    ::inotify_add_watch(descriptor_, QueueObject::path(queue).c_str(), IN_OPEN);
  } catch (const std::exception&) {
    // Without memory for the path there is no hint.
  }
}

bool OpenEvents::await(std::chrono::nanoseconds patience) noexcept {
  constexpr long kNanoseconds = 1000000000;
  const timespec time = {patience.count() / kNanoseconds, patience.count() % kNanoseconds};
  pollfd ready = {descriptor_, POLLIN, 0};
  if (::ppoll(&ready, 1, &time, nullptr) <= 0) return false;
  alignas(inotify_event) char events[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
  while (::read(descriptor_, events, sizeof events) > 0) {
  }
  return true;
}

}  // namespace korvex::receiver
