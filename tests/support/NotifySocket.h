#ifndef TESTS_SUPPORT_NOTIFY_SOCKET_H
#define TESTS_SUPPORT_NOTIFY_SOCKET_H

#include <chrono>
#include <string>

#include "support/Await.h"

namespace korvex::test {

/// The socket of a service manager that a test plays.
class NotifySocket {
 public:
  /// A path, or a name that begins with @ and is in no file system.
  explicit NotifySocket(const std::string& name);
  ~NotifySocket();
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  const std::string& name() const { return name_; }

  /// The next message; empty when none comes in this time.
  std::string next(std::chrono::milliseconds patience = kPatience);

  /// The next message that begins so, the others thrown away; empty when none comes.
  std::string await(const std::string& beginning);

  /// Throws away what is there now.
  void forget();

 private:
  std::string name_;
  int socket_;
};

}  // namespace korvex::test

#endif
