#ifndef KORVEX_TOOL_SOURCE_COMMAND_H
#define KORVEX_TOOL_SOURCE_COMMAND_H

#include <memory>
#include <qmx/error.h>
#include <string>
#include <utility>
#include <vector>

#include "Input.h"
#include "StopSignal.h"
#include "send/ChildProcess.h"

namespace korvex::tool {

/// A command whose standard output is the stream, and whose exit code decides about it.
///
/// The stream is whole when the command has exited with 0 and its output has ended; finish()
/// returns then, and only then. A command that fails throws a Failure at once, even while its
/// children keep the output open.
///
/// Order: start(), then as an Input. After a Failure or Interrupted: interrupt(), then settle().
class SourceCommand : public Input {
 public:
  struct Settings {
    std::vector<std::string> words;         ///< the program and its arguments; not empty
    std::chrono::milliseconds timeout;      ///< between the command's end and its output's
    std::chrono::milliseconds grace{5000};  ///< from interrupt() to SIGKILL
  };

  SourceCommand(Settings settings, const StopSignal& stop);
  ~SourceCommand() override;

  /// Throws a Failure when the command cannot be started.
  void start();

  std::optional<std::uint64_t> totalBytes() const override { return std::nullopt; }
  bool openNext() override { return !std::exchange(isOpened_, true); }
  void finish() override;

  /// Asks the command to end: with the signal that this process got, else with SIGTERM. Does
  /// nothing before start() and after finish().
  void interrupt() noexcept;

  /// Waits until the command is gone, kills it when its grace is over, and returns how it ended.
  /// Nothing when it was never started, or cannot be killed.
  std::optional<ProcessEnd> settle() noexcept;

 private:
  std::size_t readSome(unsigned char* buffer, std::size_t size) override;
  bool isReadable(int file);
  void heed();
  void checkPatience() const;
  void closeOutput() noexcept;
  [[noreturn]] void throwFailed(ov_status_t status, const std::string& text) const;

  Settings settings_;
  const StopSignal& stop_;
  int output_ = -1;
  std::unique_ptr<ChildProcess> process_;
  std::optional<ProcessEnd> end_;
  bool isOpened_ = false;
  bool isWhole_ = false;
  bool isInterrupted_ = false;
  Clock::time_point lastProgress_;  ///< data, the output's end, the command's end
  Clock::time_point graceEnd_;
};

}  // namespace korvex::tool

#endif
