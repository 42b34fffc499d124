#ifndef KORVEXD_ENGINE_H
#define KORVEXD_ENGINE_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "korvexd/exec/EngineLog.h"
#include "korvexd/exec/Keeper.h"
#include "korvexd/exec/Keepers.h"
#include "korvexd/os/File.h"

namespace korvexd {

/// Why an engine did not store a stream that it was given.
enum class EngineFailure : std::size_t {
  NotStarted,
  ExitCode,     ///< other than 0
  Killed,       ///< by a signal that was not this daemon's
  EarlyExit,    ///< with 0, and without its whole input
  ClosedInput,  ///< before its end
  TookNothing,  ///< for too long
  TimedOut,     ///< it did not finish
  KeeperLost,
  DaemonEnded
};

constexpr std::size_t kEngineFailures = static_cast<std::size_t>(EngineFailure::DaemonEnded) + 1;

/// How often each of them happened, by its number.
using EngineFailureCounts = std::array<std::uint64_t, kEngineFailures>;

/// The daemon's end of one engine: its input, its output, and its keeper.
///
/// Nothing here waits longer than it is told to. Unless announceComplete() was called, the input is
/// held open until nothing of the engine is left. Used by one thread at a time.
class Engine {
 public:
  struct Command {
    std::string program;  ///< a path
    std::vector<std::string> words;
    std::vector<std::string> variables;  ///< NAME=VALUE, beside those of this process
    std::chrono::seconds timeout;        ///< to finish after the end of its input
  };

  enum class For { News, Room };

  /// Starts the keeper, which starts the engine. `keepers` outlives the engine. Throws SystemError.
  Engine(Keepers& keepers, const Command& command, EngineLog::Print print);

  /// Does not wait: the keeper kills the engine unless it may finish.
  ~Engine() = default;
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  /// Writes what its input has room for, and returns how much that was. Throws SystemError, EPIPE
  /// when the engine has closed its input.
  std::size_t offer(const unsigned char* data, std::size_t size);

  /// Waits up to `longest` for room in its input, or only for news, and takes the news. Returns
  /// whether there is room, if it waited for that.
  bool wait(For what, std::chrono::milliseconds longest);

  /// Takes news without waiting.
  void look() { wait(For::News, std::chrono::milliseconds(0)); }

  /// Whether its program runs, or has run; else look at end().
  bool hasStarted() const noexcept { return hasStarted_; }

  /// What the keeper said of its end; once it is there, everything the engine wrote is in the log.
  const std::optional<keeper::Report>& end() const noexcept { return end_; }

  /// Whether its keeper is gone. Without an end(), it was killed.
  bool isAlone() const noexcept { return isAlone_; }

  /// All data is written: closes the input; from then on the engine may finish even if this process
  /// dies.
  void announceComplete() noexcept;

  /// Has it killed, with all its descendants.
  void kill() noexcept;

  /// Whether nothing of it is left, including its keeper; false while that is unknown. Kills what a
  /// dead keeper left behind.
  bool isGone() noexcept;

  /// The last line that it wrote to its standard error.
  std::string lastError() const { return errorLog_.lastLine(); }

 private:
  struct Pipe {
    File reader;
    File writer;
  };

  static Pipe makePipe();
  void spawn(const Command& command, const Pipe& input, const Pipe& output, const Pipe& errors,
             const File& control);
  void send(keeper::Order order) const noexcept;
  void takeReports();
  void take(const keeper::Report& report);
  bool isGoneNow();
  void readRest();
  static bool readSome(File& from, EngineLog& log);

  Keepers& keepers_;
  pid_t keeper_ = -1;
  File input_;
  File output_;
  File errors_;
  File control_;
  EngineLog outputLog_;
  EngineLog errorLog_;
  bool hasStarted_ = false;
  std::optional<keeper::Report> end_;
  bool isAlone_ = false;
  Keepers::End keeperEnd_ = Keepers::End::NotYet;
};

}  // namespace korvexd

#endif
