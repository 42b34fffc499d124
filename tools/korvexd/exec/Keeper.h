#ifndef KORVEXD_KEEPER_H
#define KORVEXD_KEEPER_H

#include <cstdint>

namespace korvexd {

// Between the daemon and each engine stands a keeper, a process of its own. When a process dies,
// the kernel closes its descriptors before any other process learns of its death. If only the
// daemon held the write end of the engine's input, its death would look to the engine like the end
// of a complete stream. So the keeper holds the write end as well. When the daemon is gone, it
// kills the engine and all its descendants, and only then closes its copy.
//
// The keeper is the daemon's own program, started with this word as its first argument, then the
// seconds that the engine may take to finish, the path of its program and its words. It finds these
// descriptors open:

constexpr const char* kKeeperArgument = "--keep-engine";

namespace keeper {

constexpr const char* kName = "korvexd-keeper";  ///< in the list of processes

// 0 to 2 are the engine's input, output and errors.
constexpr int kControl = 3;  ///< packets to and from the daemon
constexpr int kInput = 4;    ///< the write end of the engine's input
constexpr int kOutput = 5;   ///< the read ends of what the engine writes, so that it can go on
constexpr int kErrors = 6;   ///< writing when the daemon is gone

/// An order from the daemon, one byte. Its death counts as an order, too: kill the engine, unless
/// the stream is complete.
enum class Order : std::uint8_t {
  Complete = 'c',  ///< all data is in the pipe: end the input, let the engine finish
  Kill = 'k'
};

enum class Event : std::uint8_t {
  Started,
  NotStarted,  ///< value: the error
  Exited,      ///< value: the exit code
  Killed,      ///< value: the signal
  TimedOut,
  LostInput  ///< value: the error that keeps the keeper from looking at the engine's input
};

/// What the keeper reports. In the end it exits with 0: nothing of the engine is left then.
struct Report {
  Event event;
  bool isComplete;  ///< the input had ended before
  std::int32_t value;
  std::int32_t unread;  ///< bytes that the engine left in its input
};

}  // namespace keeper

/// Whether the program was started as a keeper.
bool isKeeper(int argc, const char* const* argv) noexcept;

/// The whole life of a keeper; returns the exit code of its process. Call it before anything else
/// in main().
int runKeeper(int argc, char** argv);

}  // namespace korvexd

#endif
