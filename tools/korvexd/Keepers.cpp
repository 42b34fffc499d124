#include "korvexd/Keepers.h"

#include <signal.h>
#include <sys/wait.h>

#include "korvexd/Descendants.h"

namespace korvexd {

Keepers::Keepers() : others_(childrenOfThisProcess()) {
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

bool Keepers::killOrphans() {
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::set<pid_t> killed = killDescendantsExcept(others_);
  for (const pid_t child : killed) ::waitpid(child, nullptr, WNOHANG);
  return killed.empty();
}

}  // namespace korvexd
