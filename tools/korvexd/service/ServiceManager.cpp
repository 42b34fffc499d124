#include "korvexd/service/ServiceManager.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <korvex/receiver/SystemError.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>
#include <utility>

#include "korvexd/log/LogEntry.h"
#include "korvexd/os/File.h"

namespace korvexd {
namespace {

constexpr timeval kLongestSend{5, 0};  // a manager that hangs must not make the daemon hang
constexpr std::int64_t kMicrosecondsPerSecond = 1000000;
constexpr std::int64_t kNanosecondsPerMicrosecond = 1000;

std::string takeVariable(const char* name) {
  const char* const value = std::getenv(name);
  std::string text = value == nullptr ? "" : value;
  ::unsetenv(name);
  return text;
}

/// 0 for what is no number.
std::uint64_t numberIn(const std::string& text) noexcept {
  return std::strtoull(text.c_str(), nullptr, 10);
}

/// The manager names the process that it watches; a child of that has inherited the variables.
std::optional<std::chrono::microseconds> takeWatchdogPeriod() {
  const std::uint64_t period = numberIn(takeVariable("WATCHDOG_USEC"));
  const std::string watched = takeVariable("WATCHDOG_PID");
  const bool isForUs = watched.empty() || numberIn(watched) == static_cast<unsigned>(::getpid());
  if (period == 0 || !isForUs) return std::nullopt;
  return std::chrono::microseconds(period);
}

/// A path, or a name that begins with @ and is in no file system.
socklen_t fill(sockaddr_un& address, const std::string& name) noexcept {
  const bool isUsable = !name.empty() && (name[0] == '/' || name[0] == '@');
  if (!isUsable || name.size() >= sizeof address.sun_path) return 0;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  if (name[0] == '@') address.sun_path[0] = '\0';
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

std::int64_t monotonicMicroseconds() noexcept {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kMicrosecondsPerSecond + now.tv_nsec / kNanosecondsPerMicrosecond;
}

/// 0, or the error.
int sendTo(const sockaddr_un& address, socklen_t size, const std::string& message) noexcept {
  const File socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (socket.descriptor() < 0) return errno;
  ::setsockopt(socket.descriptor(), SOL_SOCKET, SO_SNDTIMEO, &kLongestSend, sizeof kLongestSend);
  const ssize_t sent = ::sendto(socket.descriptor(), message.data(), message.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), size);
  return sent < 0 ? errno : 0;
}

}  // namespace

ServiceManager::ServiceManager()
    : addressSize_(fill(address_, takeVariable("NOTIFY_SOCKET"))),
      watchdogPeriod_(takeWatchdogPeriod()) {}

void ServiceManager::ready(const std::string& status) {
  status_ = status;
  send("READY=1\nSTATUS=" + status);
}

/// The time tells the manager which of several reloads this is.
void ServiceManager::reloading() {
  send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(monotonicMicroseconds()));
}

void ServiceManager::stopping() { send("STOPPING=1"); }

void ServiceManager::status(const std::string& text) {
  if (text == status_) return;
  status_ = text;
  send("STATUS=" + text);
}

void ServiceManager::feedWatchdog() { send("WATCHDOG=1"); }

void ServiceManager::send(const std::string& message) {
  if (addressSize_ == 0) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  const int error = sendTo(address_, addressSize_, message);
  if (error != 0) ++failures_;
  const bool wasUnreachable = std::exchange(isUnreachable_, error != 0);
  if (error == 0 || wasUnreachable) return;
  writeLog({Event::ManagerUnreachable, spdlog::level::warn, "",
            korvex::receiver::SystemError("notifying the service manager", error).what()});
}

}  // namespace korvexd
