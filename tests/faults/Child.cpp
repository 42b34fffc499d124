#include "Child.h"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace korvex::test {
namespace {

constexpr std::chrono::milliseconds kPeriod{1};

}  // namespace

Child::Child(const std::vector<std::string>& command, int descriptor, std::string file)
    : file_(std::move(file)) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, descriptor, file_.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const int error = ::posix_spawn(&id_, arguments[0], &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::system_error(error, std::generic_category(), command[0]);
}

Child::~Child() { killNow(); }

void Child::signal(int number) const { ::kill(id_, number); }

bool Child::reap(int options) {
  int status = 0;
  while (!ended_) {
    const pid_t found = ::waitpid(id_, &status, options);
    if (found == 0) return false;
    if (found < 0 && errno == EINTR) continue;
    ended_ = true;
    code_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  return true;
}

bool Child::hasEnded() { return reap(WNOHANG); }

void Child::killNow() {
  if (!ended_) signal(SIGKILL);
  reap(0);
}

std::optional<int> Child::wait(std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!hasEnded()) {
    if (std::chrono::steady_clock::now() >= end) return std::nullopt;
    std::this_thread::sleep_for(kPeriod);
  }
  return code_;
}

std::string Child::said() const {
  std::ifstream file(file_);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace korvex::test
