#include "InputReader.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "Failure.h"
#include "common/Printable.h"

namespace korvex::tool {
namespace {

constexpr std::string_view kStandardInput = "-";
constexpr int kPipeSize = 1 << 20;
constexpr int kOpenFlags = O_RDONLY | O_CLOEXEC | O_NOCTTY;

std::string titleOf(const std::string& name) {
  return name == kStandardInput ? "standard input" : "'" + common::printable(name) + "'";
}

[[noreturn]] void throwUnreadable(const std::string& name, int error) {
  throw Failure(static_cast<ov_status_t>(error),
                "cannot read " + titleOf(name) + ": " + std::generic_category().message(error));
}

struct stat statusOf(const std::string& name) {
  struct stat status = {};
  const int result =
      name == kStandardInput ? ::fstat(STDIN_FILENO, &status) : ::stat(name.c_str(), &status);
  if (result != 0) throwUnreadable(name, errno);
  if (S_ISDIR(status.st_mode)) throwUnreadable(name, EISDIR);
  return status;
}

/// It was opened by another program, perhaps for writing only; perhaps it is an unconnected socket.
void proveInputReadable(const std::string& name, mode_t mode) {
  if ((::fcntl(STDIN_FILENO, F_GETFL) & O_ACCMODE) == O_WRONLY) throwUnreadable(name, EBADF);
  if (!S_ISSOCK(mode)) return;
  char byte = 0;
  const ssize_t got = ::recv(STDIN_FILENO, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (got < 0 && errno != EAGAIN) throwUnreadable(name, errno);
}

void proveReadable(const std::string& name, mode_t mode) {
  if (name == kStandardInput) return proveInputReadable(name, mode);
  if (S_ISFIFO(mode)) {
    if (::access(name.c_str(), R_OK) != 0) throwUnreadable(name, errno);
    return;
  }
  // Opening a serial terminal may block until its line is up. A drive is opened without O_NONBLOCK,
  // or one without a medium would not fail.
  const int file = ::open(name.c_str(), kOpenFlags | (S_ISCHR(mode) ? O_NONBLOCK : 0));
  if (file < 0) throwUnreadable(name, errno);
  ::close(file);
}

bool isPipe(const std::string& name) {
  struct stat status = {};
  return ::stat(name.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

/// Opening a pipe without a writer would block here, and the daemon's exit would go unnoticed.
int openInput(const std::string& name) {
  if (name == kStandardInput) return STDIN_FILENO;
  return ::open(name.c_str(), kOpenFlags | (isPipe(name) ? O_NONBLOCK : 0));
}

/// What is left of a regular file: standard input may have been read in part before.
std::uint64_t bytesLeft(const std::string& name, const struct stat& status) {
  if (name != kStandardInput) return static_cast<std::uint64_t>(status.st_size);
  const off_t position = std::max(::lseek(STDIN_FILENO, 0, SEEK_CUR), off_t{0});
  return static_cast<std::uint64_t>(std::max(status.st_size - position, off_t{0}));
}

}  // namespace

InputReader::InputReader(const std::vector<std::string>& names, const StopSignal& stop)
    : names_(names), stop_(stop) {
  if (names_.empty()) names_.emplace_back(kStandardInput);
  for (const std::string& name : names_) addSize(name);
}

InputReader::~InputReader() { closeFile(); }

void InputReader::addSize(const std::string& name) {
  const struct stat status = statusOf(name);
  proveReadable(name, status.st_mode);
  if (!S_ISREG(status.st_mode)) {
    totalBytes_.reset();
  } else if (totalBytes_) {
    *totalBytes_ += bytesLeft(name, status);
  }
}

bool InputReader::openNext() {
  closeFile();
  if (next_ == names_.size()) return false;
  openFile(names_[next_]);
  ++next_;
  return true;
}

void InputReader::openFile(const std::string& name) {
  do {
    stop_.throwIfReceived();
    file_ = openInput(name);
  } while (file_ < 0 && errno == EINTR);
  struct stat status = {};
  if (file_ < 0 || ::fstat(file_, &status) != 0) throwUnreadable(name, errno);
  waits_ = !S_ISREG(status.st_mode);
  // Both are only optimisations, so their results are ignored.
  if (S_ISFIFO(status.st_mode)) ::fcntl(file_, F_SETPIPE_SZ, kPipeSize);
  if (!waits_) ::posix_fadvise(file_, 0, 0, POSIX_FADV_SEQUENTIAL);
}

void InputReader::closeFile() noexcept {
  if (file_ > STDIN_FILENO) ::close(file_);
  file_ = -1;
}

std::size_t InputReader::readSome(unsigned char* buffer, std::size_t size) {
  for (;;) {
    stop_.throwIfReceived();
    if (waits_) waitForInput();
    const ssize_t got = ::read(file_, buffer, size);
    if (got >= 0) return static_cast<std::size_t>(got);
    // A pipe may have been given to this process non-blocking; another reader may have been faster.
    if (errno != EINTR && errno != EAGAIN) throwUnreadable(names_[next_ - 1], errno);
  }
}

void InputReader::waitForInput() {
  pollfd ends[] = {{file_, POLLIN, 0}, {stop_.descriptor(), POLLIN, 0}};
  for (;;) {
    const int ready = ::poll(ends, 2, static_cast<int>(kIdlePeriod.count()));
    const int error = errno;
    stop_.throwIfReceived();
    if (ready < 0 && error != EINTR) throwUnreadable(names_[next_ - 1], error);
    pulse();
    if (ready > 0) return;
  }
}

}  // namespace korvex::tool
