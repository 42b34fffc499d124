#include "support/Child.h"

#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "support/Await.h"

namespace korvex::test {
namespace {

constexpr std::size_t kReadSize = 4096;

[[noreturn]] void runTask(const std::function<std::string()>& task, int output) {
  ::signal(SIGBUS, SIG_DFL);  // a sanitizer would turn it into an exit
  std::string text;
  try {
    text = task();
  } catch (const std::exception& error) {
    text = std::string("uncaught: ") + error.what();
  }
  // One write: the texts are far shorter than a pipe.
  const ssize_t written = ::write(output, text.data(), text.size());
  // Neither destructors nor the end of the test program run here.
  ::_exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
}

/// Reads everything until the child closes its end; false if it does not.
bool readAll(int pipe, std::string& text) {
  pollfd waiting = {pipe, POLLIN, 0};
  const int patience = static_cast<int>(std::chrono::milliseconds(kPatience).count());
  while (::poll(&waiting, 1, patience) == 1) {
    char bytes[kReadSize];
    const ssize_t size = ::read(pipe, bytes, sizeof bytes);
    if (size <= 0) return true;
    text.append(bytes, static_cast<std::size_t>(size));
  }
  return false;
}

}  // namespace

bool isRoot() { return ::geteuid() == 0; }

uid_t unprivilegedUser() { return isRoot() ? kNobody : ::geteuid(); }

void dropPrivileges() {
  if (!isRoot()) return;
  if (::setgroups(0, nullptr) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
      ::setresuid(kNobody, kNobody, kNobody) != 0) {
    throw std::runtime_error("cannot become another user");
  }
}

std::string resultOfChild(const std::function<std::string()>& task) {
  int ends[2];
  if (::pipe(ends) != 0) throw std::runtime_error("no pipe");
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("cannot fork");
  if (child == 0) {
    ::close(ends[0]);
    runTask(task, ends[1]);
  }
  ::close(ends[1]);
  std::string text;
  const bool hasEnded = readAll(ends[0], text);
  ::close(ends[0]);
  if (!hasEnded) ::kill(child, SIGKILL);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!hasEnded) return "hangs";
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return text;
}

}  // namespace korvex::test
