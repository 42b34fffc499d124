#ifndef TESTS_INTEGRATION_STRANGE_OBJECTS_H
#define TESTS_INTEGRATION_STRANGE_OBJECTS_H

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace korvex::test::strange {

/// What lies under a queue's name, as long as this lives.
using Holder = std::shared_ptr<void>;

/// Who meets the object. Permissions mean nothing to root.
enum class Actor { Anybody, Unprivileged };

/// One strange object under a queue's name, and how those who meet it end.
struct Kind {
  const char* name;
  std::function<Holder(const std::string&)> place;
  /// What a writer meets that may wait one second, "CALL: ERROR", or "works".
  std::string asSendQueue;
  std::string asResponseQueue;
  /// What keeps `korvexd --replace` from serving; empty when it serves. NAME stands for the name
  /// under which the object lies, USER for the daemon's user.
  std::string keepsDaemonOut;
  Actor actor = Actor::Anybody;
  /// Why this process cannot make one; empty when it can.
  std::function<std::string()> obstacle = [] { return std::string(); };
};

inline void PrintTo(const Kind& kind, std::ostream* stream) { *stream << kind.name; }

/// The table.
const std::vector<Kind>& kinds();

/// The limits of the queues in the table.
constexpr unsigned kMessages = 4;
constexpr unsigned kMessageSize = 132;

}  // namespace korvex::test::strange

#endif
