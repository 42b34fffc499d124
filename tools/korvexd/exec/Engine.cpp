#include "korvexd/exec/Engine.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <korvex/receiver/SystemError.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace korvexd {

namespace receiver = korvex::receiver;
namespace {

using keeper::Event;
using keeper::Order;
using keeper::Report;
using std::chrono::milliseconds;

constexpr int kPipeSize = 1 << 20;
constexpr std::size_t kReadSize = std::size_t{16} * 1024;
constexpr int kReadsForTheRest = 64;  // one pipe's capacity; a descendant may keep filling it
constexpr int kFirstFree = keeper::kErrors + 1;

constexpr const char* kProgramOfThisProcess = "/proc/self/exe";
constexpr const char* kStarting = "starting the engine's keeper";

/// Above the numbers that the keeper gets its descriptors under, so that giving one of them does
/// not close another.
File movedAside(const File& file) {
  File moved(::fcntl(file.descriptor(), F_DUPFD_CLOEXEC, kFirstFree));
  if (moved.descriptor() < 0) throw receiver::SystemError(kStarting, errno);
  return moved;
}

void makeNonBlocking(const File& file) { ::fcntl(file.descriptor(), F_SETFL, O_NONBLOCK); }

/// The addresses of texts, as programs are started with.
class Pointers {
 public:
  explicit Pointers(std::vector<std::string> texts) : texts_(std::move(texts)) {
    for (std::string& text : texts_) pointers_.push_back(text.data());
    pointers_.push_back(nullptr);
  }
  char* const* data() const { return pointers_.data(); }

 private:
  std::vector<std::string> texts_;
  std::vector<char*> pointers_;
};

std::string nameOf(const std::string& variable) { return variable.substr(0, variable.find('=')); }

/// This process's variables, with these in place of others of their names.
std::vector<std::string> environmentWith(const std::vector<std::string>& variables) {
  std::vector<std::string> all = variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    const bool isReplaced = std::any_of(variables.begin(), variables.end(),
                                        [&](const auto& v) { return nameOf(v) == nameOf(text); });
    if (!isReplaced) all.push_back(text);
  }
  return all;
}

std::vector<std::string> keepersWords(const Engine::Command& command) {
  std::vector<std::string> words = {keeper::kName, kKeeperArgument,
                                    std::to_string(command.timeout.count()), command.program};
  words.insert(words.end(), command.words.begin(), command.words.end());
  return words;
}

/// What a new process finds under which descriptor.
class Descriptors {
 public:
  Descriptors() { ::posix_spawn_file_actions_init(&actions_); }
  ~Descriptors() { ::posix_spawn_file_actions_destroy(&actions_); }
  Descriptors(const Descriptors&) = delete;
  Descriptors& operator=(const Descriptors&) = delete;

  void give(const File& file, int number) {
    const int error = ::posix_spawn_file_actions_adddup2(&actions_, file.descriptor(), number);
    if (error != 0) throw receiver::SystemError(kStarting, error);
  }
  const posix_spawn_file_actions_t* actions() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

}  // namespace

Engine::Engine(Keepers& keepers, const Command& command, EngineLog::Print print)
    : keepers_(keepers), outputLog_(print), errorLog_(std::move(print)) {
  Pipe input = makePipe();
  Pipe output = makePipe();
  Pipe errors = makePipe();
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw receiver::SystemError(kStarting, errno);
  }
  control_ = File(ends[0]);
  const File keepersControl(ends[1]);
  // Only an optimisation: the per-user limit on pipe memory may refuse this size.
  ::fcntl(input.writer.descriptor(), F_SETPIPE_SZ, kPipeSize);
  for (const File* ours : {&input.writer, &output.reader, &errors.reader}) makeNonBlocking(*ours);
  spawn(command, input, output, errors, keepersControl);
  input_ = std::move(input.writer);
  output_ = std::move(output.reader);
  errors_ = std::move(errors.reader);
}

Engine::Pipe Engine::makePipe() {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) throw receiver::SystemError(kStarting, errno);
  return {File(ends[0]), File(ends[1])};
}

/// The system's own way to start a program is safe beside other threads.
void Engine::spawn(const Command& command, const Pipe& input, const Pipe& output,
                   const Pipe& errors, const File& control) {
  const File keepersControl = movedAside(control);
  const File keepersInput = movedAside(input.writer);
  const File keepersOutput = movedAside(output.reader);
  const File keepersErrors = movedAside(errors.reader);
  Descriptors descriptors;
  descriptors.give(input.reader, STDIN_FILENO);
  descriptors.give(output.writer, STDOUT_FILENO);
  descriptors.give(errors.writer, STDERR_FILENO);
  descriptors.give(keepersControl, keeper::kControl);
  descriptors.give(keepersInput, keeper::kInput);
  descriptors.give(keepersOutput, keeper::kOutput);
  descriptors.give(keepersErrors, keeper::kErrors);
  const Pointers words(keepersWords(command));
  const Pointers environment(environmentWith(command.variables));
  keeper_ = keepers_.start([&] {
    pid_t process = -1;
    const int error = ::posix_spawn(&process, kProgramOfThisProcess, descriptors.actions(), nullptr,
                                    words.data(), environment.data());
    if (error != 0) throw receiver::SystemError(kStarting, error);
    return process;
  });
}

std::size_t Engine::offer(const unsigned char* data, std::size_t size) {
  const ssize_t written = ::write(input_.descriptor(), data, size);
  if (written >= 0) return static_cast<std::size_t>(written);
  if (errno == EAGAIN || errno == EINTR) return 0;
  throw receiver::SystemError("writing to the engine", errno);
}

bool Engine::wait(For what, milliseconds longest) {
  const int room = what == For::Room ? input_.descriptor() : -1;
  std::array<pollfd, 4> ready = {{{isAlone_ ? -1 : control_.descriptor(), POLLIN, 0},
                                  {output_.descriptor(), POLLIN, 0},
                                  {errors_.descriptor(), POLLIN, 0},
                                  {room, POLLOUT, 0}}};
  ::poll(ready.data(), ready.size(), static_cast<int>(longest.count()));
  if (ready[1].revents != 0) readSome(output_, outputLog_);
  if (ready[2].revents != 0) readSome(errors_, errorLog_);
  if (ready[0].revents != 0) takeReports();
  return ready[3].revents != 0;
}

void Engine::takeReports() {
  for (;;) {
    Report report = {};
    const ssize_t size = ::recv(control_.descriptor(), &report, sizeof report, MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
    // The keeper has left an order unread. What it said before its end comes after this error.
    if (size < 0 && errno == ECONNRESET) continue;
    if (size != sizeof report) {
      isAlone_ = true;
      return;
    }
    take(report);
  }
}

void Engine::take(const Report& report) {
  if (report.event == Event::Started) {
    hasStarted_ = true;
    return;
  }
  readRest();
  end_ = report;
}

/// Everything that it wrote before it ended. Its descendants may still be writing.
void Engine::readRest() {
  for (int i = 0; i < kReadsForTheRest && readSome(output_, outputLog_); ++i) {
  }
  for (int i = 0; i < kReadsForTheRest && readSome(errors_, errorLog_); ++i) {
  }
}

/// Whether there may be more to read.
bool Engine::readSome(File& from, EngineLog& log) {
  if (from.descriptor() < 0) return false;
  std::array<char, kReadSize> bytes;
  const ssize_t size = ::read(from.descriptor(), bytes.data(), bytes.size());
  if (size > 0) {
    log.take({bytes.data(), static_cast<std::size_t>(size)}, EngineLog::Clock::now());
    return true;
  }
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return false;
  log.end();
  from = File();
  return false;
}

/// The order first: killed after that, this process leaves the engine to finish.
void Engine::announceComplete() noexcept {
  send(Order::Complete);
  input_ = File();
}

void Engine::kill() noexcept { send(Order::Kill); }

/// One that has ended needs no order, and two of them always have room.
void Engine::send(Order order) const noexcept {
  ::send(control_.descriptor(), &order, sizeof order, MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool Engine::isGone() noexcept {
  try {
    return isGoneNow();
  } catch (const std::exception&) {
    return false;  // no memory, no descriptor: asked again
  }
}

bool Engine::isGoneNow() {
  if (keeperEnd_ == Keepers::End::NotYet) {
    look();
    keeperEnd_ = keepers_.reap(keeper_);
    if (keeperEnd_ == Keepers::End::NotYet) return false;
  }
  if (keeperEnd_ == Keepers::End::Killed && !keepers_.killOrphans()) return false;
  readRest();
  outputLog_.end();
  errorLog_.end();
  return true;
}

}  // namespace korvexd
