#ifndef KORVEX_TOOL_DAEMON_STATS_H
#define KORVEX_TOOL_DAEMON_STATS_H

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>

namespace korvex::tool {

/// What a daemon's statistics say of one queue.
struct StreamStats {
  struct Open {
    std::time_t since = 0;
    std::uint64_t bytes = 0;
    std::string place;
  };
  struct End {
    std::time_t at = 0;
    std::uint64_t bytes = 0;
    std::string reason;  ///< of a stream that was not complete
  };

  std::optional<Open> open;
  std::optional<End> lastComplete;
  std::optional<End> lastIncomplete;
  std::uint64_t complete = 0;
  std::uint64_t incomplete = 0;
  std::uint64_t bytes = 0;  ///< of all streams
  double writtenAt = 0;     ///< seconds since 1970
};

/// By the queue's name in JSON.
using StatsByQueue = std::map<std::string, StreamStats>;

/// Adds what the file says. Never waits, whatever the path leads to. What is wrong with the file;
/// empty when nothing is.
std::string readStats(const std::string& path, StatsByQueue& stats);

/// The file that a daemon's command line, or the configuration file named there, names for its
/// statistics, as this process can open it; empty when there is none. Believes the process: ask
/// isProcessOf() first.
std::string statsPathOf(pid_t daemon);

/// Whether the user started the process. The real user id counts: the effective one may come from
/// a set-user-ID program.
bool isProcessOf(pid_t process, uid_t user);

}  // namespace korvex::tool

#endif
