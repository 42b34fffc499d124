#ifndef KORVEXD_SERVICE_MANAGER_H
#define KORVEXD_SERVICE_MANAGER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace korvexd {

/// Notifies systemd about this process, with datagrams to the socket named in NOTIFY_SOCKET.
/// Without one everything here does nothing. One thread sends; any other may feed the watchdog.
class ServiceManager {
 public:
  /// Takes the variables out of the environment, so that engines do not speak for the daemon: make
  /// it before any thread starts.
  ServiceManager();

  /// Producers may come. Also ends a reloading().
  void ready(const std::string& status);

  /// The configuration is being read again; ready() follows, whatever came of it.
  void reloading();

  /// The daemon is about to end.
  void stopping();

  /// One line for people, shown by `systemctl status`. Sends only what has changed.
  void status(const std::string& text);

  /// The loops that move data are making progress.
  void feedWatchdog();

  /// A loop is stuck, so the watchdog is not fed this time.
  void withholdFeeding() noexcept { ++feedingsWithheld_; }

  /// Since the start. Any thread may ask.
  std::uint64_t failures() const noexcept { return failures_; }  ///< messages not sent
  std::uint64_t feedingsWithheld() const noexcept { return feedingsWithheld_; }

  /// How long the manager waits for feedWatchdog() before it restarts the daemon; none: forever.
  const std::optional<std::chrono::microseconds>& watchdogPeriod() const noexcept {
    return watchdogPeriod_;
  }

 private:
  void send(const std::string& message);

  sockaddr_un address_ = {};
  socklen_t addressSize_ = 0;  ///< 0 for no manager
  std::optional<std::chrono::microseconds> watchdogPeriod_;
  std::mutex mutex_;
  std::string status_;
  std::atomic<std::uint64_t> failures_{0};
  std::atomic<std::uint64_t> feedingsWithheld_{0};
  bool isUnreachable_ = false;  ///< the last time, and the log says so
};

}  // namespace korvexd

#endif
