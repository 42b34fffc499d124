#include "support/NotifySocket.h"

#include <cerrno>
#include <cstddef>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace korvex::test {

NotifySocket::NotifySocket(const std::string& name)
    : name_(name), socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path, sizeof address.sun_path - 1);
  if (name[0] == '@') address.sun_path[0] = '\0';
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), size) != 0) {
    throw std::system_error(errno, std::generic_category(), name);
  }
}

NotifySocket::~NotifySocket() { ::close(socket_); }

std::string NotifySocket::next(std::chrono::milliseconds patience) {
  pollfd ready = {socket_, POLLIN, 0};
  if (::poll(&ready, 1, static_cast<int>(patience.count())) != 1) return "";
  char text[4096];
  const ssize_t size = ::recv(socket_, text, sizeof text, 0);
  return {text, size > 0 ? static_cast<std::size_t>(size) : 0};
}

/// With an end of its own: a watchdog that is fed leaves no silence.
std::string NotifySocket::await(const std::string& beginning) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    std::string message = next();
    if (message.empty() || message.rfind(beginning, 0) == 0) return message;
  }
  return "";
}

void NotifySocket::forget() {
  while (!next(std::chrono::milliseconds(0)).empty()) {
  }
}

}  // namespace korvex::test
