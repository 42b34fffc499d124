#include "status/QueueUsers.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/sysmacros.h>
#include <system_error>

namespace korvex::tool {

QueueUsers::QueueUsers() {
  namespace fs = std::filesystem;
  std::error_code error;
  for (fs::directory_iterator at("/proc", error), end; at != end; at.increment(error)) {
    const pid_t process = std::atoi(at->path().filename().c_str());
    if (process > 0) examine(process);
  }
  if (error) ++unexamined_;
}

/// A line of the system's table: ADDRESSES PERMISSIONS OFFSET MAJOR:MINOR INODE NAME.
void QueueUsers::examine(pid_t process) {
  errno = 0;
  std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
  if (!maps && errno != ENOENT && errno != ESRCH) ++unexamined_;
  for (std::string line; std::getline(maps, line);) {
    unsigned deviceMajor = 0;
    unsigned deviceMinor = 0;
    unsigned long inode = 0;
    const int found =
        std::sscanf(line.c_str(), "%*s rw-s %*s %x:%x %lu", &deviceMajor, &deviceMinor, &inode);
    if (found == 3) users_.emplace(std::pair(makedev(deviceMajor, deviceMinor), inode), process);
  }
}

pid_t QueueUsers::of(const receiver::QueueStatus::Object& queue) const {
  const auto found = users_.find({queue.device, queue.inode});
  return queue.mode == 0 || found == users_.end() ? 0 : found->second;
}

}  // namespace korvex::tool
