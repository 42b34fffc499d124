#include "support/Process.h"

#include <cerrno>
#include <fcntl.h>
#include <signal.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "support/TemporaryFolder.h"

namespace korvex::test {
namespace {

constexpr int kCannotExecute = 127;
constexpr std::size_t kReadSize = 4096;

struct Pipe {
  Pipe() {
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
  }
  int ends[2];
};

[[noreturn]] void execute(std::vector<char*>& arguments, const Pipe& output, const Pipe& errors) {
  ::dup2(output.ends[1], STDOUT_FILENO);
  ::dup2(errors.ends[1], STDERR_FILENO);
  ::execv(arguments[0], arguments.data());
  ::_exit(kCannotExecute);
}

}  // namespace

Process::Process(const std::vector<std::string>& command) {
  // Built before the fork: afterwards only plain system calls are safe.
  std::vector<char*> arguments;
  for (const std::string& text : command) arguments.push_back(const_cast<char*>(text.c_str()));
  arguments.push_back(nullptr);
  const Pipe output;
  const Pipe errors;
  id_ = ::fork();
  if (id_ < 0) throw std::runtime_error("cannot fork");
  if (id_ == 0) execute(arguments, output, errors);
  ::close(output.ends[1]);
  ::close(errors.ends[1]);
  outputPipe_ = output.ends[0];
  errorPipe_ = errors.ends[0];
}

Process::~Process() {
  killNow();
  if (outputPipe_ >= 0) ::close(outputPipe_);
  if (errorPipe_ >= 0) ::close(errorPipe_);
}

void Process::signal(int number) const {
  if (!ended_) ::kill(id_, number);
}

void Process::freeze() const {
  signal(SIGSTOP);
  siginfo_t stopped = {};
  ::waitid(P_PID, static_cast<id_t>(id_), &stopped, WSTOPPED | WEXITED | WNOWAIT);
}

bool Process::awaitSignalsTaken() const {
  const std::string status = "/proc/" + std::to_string(id_) + "/status";
  return eventually([&] {
    return contentsOf(status).find("\nShdPnd:\t0000000000000000\n") != std::string::npos;
  });
}

std::optional<int> Process::wait(std::chrono::milliseconds patience) {
  const auto hasEnded = [this] {
    readPipes();
    int status = 0;
    if (ended_ || ::waitpid(id_, &status, WNOHANG) != id_) return ended_;
    code_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return ended_ = true;
  };
  if (!eventually(hasEnded, patience)) return std::nullopt;
  readPipes();
  return code_;
}

void Process::killNow() {
  signal(SIGKILL);
  wait();
}

const std::string& Process::output() {
  readPipes();
  return output_;
}

const std::string& Process::errors() {
  readPipes();
  return errors_;
}

void Process::readPipes() {
  drain(outputPipe_, output_);
  drain(errorPipe_, errors_);
}

void Process::drain(int& pipe, std::string& text) {
  char bytes[kReadSize];
  for (;;) {
    const ssize_t size = pipe < 0 ? 0 : ::read(pipe, bytes, sizeof bytes);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return;
    text.append(bytes, static_cast<std::size_t>(size));
  }
}

}  // namespace korvex::test
