#ifndef KORVEX_TOOL_PAIR_STATE_H
#define KORVEX_TOOL_PAIR_STATE_H

#include <cstdint>
#include <korvex/receiver/Limits.h>
#include <korvex/receiver/QueueStatus.h>
#include <korvex/receiver/QueueSurvey.h>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace korvex::tool {

/// A process or a thread, and what it runs.
struct Runner {
  pid_t id = 0;
  std::string program;  ///< empty when nothing with this id can be seen

  /// "korvexd (1234)", or "1234".
  std::string text() const;
};

Runner runnerOf(pid_t id);

/// One queue, as it was found.
struct QueueState {
  enum class Owner { Nobody, Alive, Dead, Unknown };

  std::string name;
  receiver::QueueStatus::Object object{};
  receiver::QueueStatus::Condition condition = receiver::QueueStatus::Condition::Unreachable;
  int systemError = 0;
  receiver::Limits limits;
  std::size_t messages = 0;
  std::uint64_t bytes = 0;
  bool isLocked = false;
  Owner lockOwner = Owner::Nobody;
  Runner lockedBy;
  std::optional<pid_t> server;  ///< as ServingProcesses tells

  bool exists() const { return object.mode != 0; }
  bool isFull() const { return limits.messages != 0 && messages >= limits.messages; }
};

/// A pair of queues, as it was found.
struct PairState {
  enum class Service { Served, Abandoned, Unknown };

  std::string name;
  QueueState batches;
  QueueState replies;
  Service service = Service::Unknown;
  Runner server;

  bool exists() const { return batches.exists() || replies.exists(); }

  /// What keeps a producer from using it, or soon will; for people, most important first.
  std::vector<std::string> problems() const;
};

/// Looks at the pair, whatever lies under its names. Takes no lock and never waits.
PairState lookAtPair(const std::string& name, const receiver::ServingProcesses& serving);

/// "a folder", "a symbolic link" and so on, for the type in a mode.
std::string kindText(mode_t mode);

}  // namespace korvex::tool

#endif
