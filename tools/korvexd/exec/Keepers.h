#ifndef KORVEXD_KEEPERS_H
#define KORVEXD_KEEPERS_H

#include <functional>
#include <mutex>
#include <set>
#include <sys/types.h>

namespace korvexd {

/// The keepers of this process, and the cleanup when one of them is killed.
///
/// A process has one of these at most: every child that it did not have before and that is no
/// keeper is taken for something that an engine has started. Any thread may use it.
class Keepers {
 public:
  enum class End { NotYet, Orderly, Killed };

  /// From now on this process is the parent of what dead keepers leave. Throws SystemError.
  Keepers();

  /// Starts a keeper and returns its process id. Throws what `spawn` throws.
  pid_t start(const std::function<pid_t()>& spawn);

  /// Whether this keeper has ended, and how; never waits. Not to be asked again once it has.
  End reap(pid_t keeper) noexcept;

  /// Kills what dead keepers have left. True when nothing of it is there any more. Throws
  /// SystemError when the system does not tell.
  bool killOrphans();

 private:
  std::mutex mutex_;
  std::set<pid_t> others_;  ///< keepers, and children that were here before
};

}  // namespace korvexd

#endif
