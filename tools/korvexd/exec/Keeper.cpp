#include "korvexd/exec/Keeper.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <optional>
#include <poll.h>
#include <signal.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/ExitCode.h"
#include "korvexd/exec/Descendants.h"

namespace korvexd {
namespace {

using korvex::common::codeOf;
using korvex::common::ExitCode;

using namespace keeper;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kTimeoutArgument = 2;
constexpr int kProgramArgument = 3;
constexpr int kFirstWord = 4;
constexpr int kCannotExecute = 127;
constexpr int kCannotReport = 126;
constexpr int kForever = -1;
constexpr std::size_t kReadSize = 4096;
constexpr milliseconds kFirstPause{1};
constexpr milliseconds kLongestPause{1000};

void closeOnExecute(int descriptor) { ::fcntl(descriptor, F_SETFD, FD_CLOEXEC); }

/// The engine starts as from a shell: the daemon's own ways with signals are not for it.
void resetSignals() {
  for (int number = 1; number < NSIG; ++number) ::signal(number, SIG_DFL);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// In the engine's process, up to its program. It is not asked to die with its keeper: it would die
/// alone, and to what it has started that could be the end of a stream.
[[noreturn]] void becomeEngine(char** arguments, int failures) {
  ::setpgid(0, 0);
  resetSignals();
  ::execv(arguments[kProgramArgument], arguments + kFirstWord);
  const int error = errno;
  const ssize_t written = ::write(failures, &error, sizeof error);
  ::_exit(written == sizeof error ? kCannotExecute : kCannotReport);
}

/// Supervises one engine, from its start until nothing of it is left.
class EngineKeeper {
 public:
  explicit EngineKeeper(char** arguments)
      : arguments_(arguments), patience_(std::atoi(arguments[kTimeoutArgument])) {}

  void run() {
    prepare();
    if (!start()) return;
    while (!isOver_) watch();
    bury();
  }

 private:
  void prepare();
  bool start();
  int awaitProgram(int failures);
  void releaseEnginesEnds() const;
  void watch();
  int millisecondsLeft() const;
  void takeOrder();
  void endInput();
  void loseDaemon();
  static void discard(int& descriptor);
  void clearSignals() const;
  void reap();
  void reportEnd(const siginfo_t& end);
  void checkTime();
  void report(Event event, int value = 0);
  int unreadBytes() const;
  void bury();

  char** const arguments_;
  const seconds patience_;
  int control_ = kControl;
  int output_ = -1;  ///< read here only when the daemon is gone
  int errors_ = -1;
  int nothing_ = -1;
  int signals_ = -1;
  int inputReader_ = -1;
  pid_t engine_ = -1;
  bool isComplete_ = false;
  bool isOver_ = false;
  Clock::time_point deadline_ = Clock::time_point::max();
};

/// A session of its own: no terminal reaches it, and no signal but those that cannot be caught. All
/// of them wait; it is only the end of a child that it has to hear of.
void EngineKeeper::prepare() {
  ::setsid();
  ::prctl(PR_SET_NAME, keeper::kName);
  adoptDescendants();
  ::signal(SIGCHLD, SIG_DFL);  // ignored, it would make children vanish with their exit codes
  sigset_t signals;
  ::sigfillset(&signals);
  ::sigprocmask(SIG_SETMASK, &signals, nullptr);
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGCHLD);
  signals_ = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  nothing_ = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int descriptor : {kControl, kInput, kOutput, kErrors}) closeOnExecute(descriptor);
}

bool EngineKeeper::start() {
  std::array<int, 2> failures = {-1, -1};
  const bool isReady = signals_ >= 0 && nothing_ >= 0 && ::pipe2(failures.data(), O_CLOEXEC) == 0;
  if (isReady) engine_ = ::fork();
  if (engine_ == 0) becomeEngine(arguments_, failures[1]);
  if (engine_ < 0) {
    report(Event::NotStarted, errno);
    return false;
  }
  ::close(failures[1]);
  const int error = awaitProgram(failures[0]);
  ::close(failures[0]);
  releaseEnginesEnds();
  report(error == 0 ? Event::Started : Event::NotStarted, error);
  isOver_ = error != 0;
  return true;
}

/// 0 once the engine's program runs, else the error. No signal interrupts it: all are blocked.
int EngineKeeper::awaitProgram(int failures) {
  int error = 0;
  const ssize_t size = ::read(failures, &error, sizeof error);
  return size == sizeof error ? error : 0;
}

/// Only the engine may hold them, or its closing them would go unnoticed.
void EngineKeeper::releaseEnginesEnds() const {
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    ::dup2(nothing_, standard);
  }
}

void EngineKeeper::watch() {
  std::array<pollfd, 4> ready = {
      {{control_, POLLIN, 0}, {signals_, POLLIN, 0}, {output_, POLLIN, 0}, {errors_, POLLIN, 0}}};
  ::poll(ready.data(), ready.size(), millisecondsLeft());
  if (ready[0].revents != 0) takeOrder();
  if (ready[2].revents != 0) discard(output_);
  if (ready[3].revents != 0) discard(errors_);
  if (!isOver_) reap();
  if (!isOver_) checkTime();
}

int EngineKeeper::millisecondsLeft() const {
  if (deadline_ == Clock::time_point::max()) return kForever;
  const auto rest = std::chrono::duration_cast<milliseconds>(deadline_ - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(rest + 1, 0, INT_MAX));
}

void EngineKeeper::takeOrder() {
  std::uint8_t order = 0;
  const ssize_t size = ::recv(control_, &order, sizeof order, MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size <= 0) return loseDaemon();
  if (order == static_cast<std::uint8_t>(Order::Kill)) isOver_ = true;
  if (order == static_cast<std::uint8_t>(Order::Complete)) endInput();
}

/// From now on the engine may finish, whatever happens to the daemon. A read end stays open here,
/// to see what the engine leaves unread.
void EngineKeeper::endInput() {
  const std::string input = "/proc/self/fd/" + std::to_string(kInput);
  inputReader_ = ::open(input.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (inputReader_ < 0) {
    report(Event::LostInput, errno);
    isOver_ = true;
    return;
  }
  ::close(kInput);
  isComplete_ = true;
  deadline_ = Clock::now() + patience_;
}

/// An engine that finishes may have something to say, and would die of a pipe that nobody reads.
void EngineKeeper::loseDaemon() {
  control_ = -1;
  isOver_ = !isComplete_;
  output_ = kOutput;
  errors_ = kErrors;
}

void EngineKeeper::discard(int& descriptor) {
  std::array<char, kReadSize> bytes;
  const ssize_t size = ::read(descriptor, bytes.data(), bytes.size());
  const bool isEnd = size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR);
  if (isEnd) descriptor = -1;
}

void EngineKeeper::clearSignals() const {
  signalfd_siginfo signal = {};
  while (::read(signals_, &signal, sizeof signal) > 0) {
  }
}

/// What the engine has orphaned ends unseen.
void EngineKeeper::reap() {
  clearSignals();
  for (;;) {
    siginfo_t end = {};
    if (::waitid(P_ALL, 0, &end, WEXITED | WNOHANG) != 0 || end.si_pid == 0) return;
    if (end.si_pid == engine_) return reportEnd(end);
  }
}

void EngineKeeper::reportEnd(const siginfo_t& end) {
  report(end.si_code == CLD_EXITED ? Event::Exited : Event::Killed, end.si_status);
  isOver_ = true;
}

void EngineKeeper::checkTime() {
  if (Clock::now() < deadline_) return;
  report(Event::TimedOut);
  isOver_ = true;
}

/// Fails harmlessly when the daemon is gone.
void EngineKeeper::report(Event event, int value) {
  Report report = {};
  report.event = event;
  report.isComplete = isComplete_;
  report.value = value;
  report.unread = unreadBytes();
  ::send(kControl, &report, sizeof report, MSG_NOSIGNAL);
}

int EngineKeeper::unreadBytes() const {
  int bytes = 0;
  return inputReader_ >= 0 && ::ioctl(inputReader_, FIONREAD, &bytes) == 0 ? bytes : 0;
}

/// Kills everything that the engine has started and waits for it, for as long as it takes. The
/// write end goes with this process, so nothing of the engine sees the end of its input before.
/// Whatever loses its parent becomes a child of this process, so this reaches all in the end.
void EngineKeeper::bury() {
  for (milliseconds pause = kFirstPause;; pause = std::min(2 * pause, kLongestPause)) {
    clearSignals();
    pid_t ended = 0;
    while ((ended = ::waitpid(-1, nullptr, WNOHANG)) > 0) {
    }
    if (ended < 0) return;  // no child is left
    try {
      killDescendantsExcept({});
    } catch (const std::exception&) {
      // No descriptor or no memory right now. Ending here would end the engine's input: try again.
    }
    pollfd another = {signals_, POLLIN, 0};
    ::poll(&another, 1, static_cast<int>(pause.count()));
  }
}

/// The daemon's own descriptors are close-on-exec; those that it inherited may not be.
void closeAllAbove(int last) {
#ifdef SYS_close_range
  ::syscall(SYS_close_range, static_cast<unsigned>(last + 1), ~0U, 0U);
#else
  static_cast<void>(last);
#endif
}

bool isControl(int descriptor) {
  int type = 0;
  socklen_t size = sizeof type;
  return ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_SEQPACKET;
}

}  // namespace

bool isKeeper(int argc, const char* const* argv) noexcept {
  return argc > 1 && std::string_view(argv[1]) == kKeeperArgument;
}

int runKeeper(int argc, char** argv) {
  if (argc <= kFirstWord || !isControl(kControl)) {
    std::cerr << "korvexd: " << kKeeperArgument << " is for korvexd itself\n";
    return codeOf(ExitCode::WrongUsage);
  }
  closeAllAbove(kErrors);
  EngineKeeper(argv).run();
  return codeOf(ExitCode::Success);
}

}  // namespace korvexd
