#include "korvexd/Keepers.h"

#include <signal.h>
#include <sys/wait.h>

#include <vector>

#include "korvexd/ChildProcesses.h"

namespace korvexd {

Keepers::Keepers() {
  const std::vector<pid_t> before = childrenOfThisProcess();
  others_.insert(before.begin(), before.end());
  ::signal(SIGCHLD, SIG_DFL);  // ignored, it would make keepers vanish with their exit codes
  adoptDescendants();
}

pid_t Keepers::start(const std::function<pid_t()>& spawn) {
  // Until its id is known, it would look like an orphan.
  const std::lock_guard<std::mutex> lock(mutex_);
  const pid_t keeper = spawn();
  others_.insert(keeper);
  return keeper;
}

Keepers::End Keepers::reap(pid_t keeper) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  int status = 0;
  const pid_t ended = ::waitpid(keeper, &status, WNOHANG);
  if (ended == 0) return End::NotYet;
  others_.erase(keeper);
  return ended == keeper && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? End::Orderly
                                                                          : End::Killed;
}

/// Children that nobody else waits for: their ids cannot be another's by now.
bool Keepers::killOrphans() {
  const std::lock_guard<std::mutex> lock(mutex_);
  bool isDone = true;
  for (const pid_t child : childrenOfThisProcess()) {
    if (others_.count(child) != 0) continue;
    isDone = false;  // its own children come next, when it is gone
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, WNOHANG);
  }
  return isDone;
}

}  // namespace korvexd
