#ifndef KORVEX_TOOL_STOP_SIGNAL_H
#define KORVEX_TOOL_STOP_SIGNAL_H

#include <atomic>

namespace korvex::tool {

/// A request by a user or a supervisor to end the process: SIGINT, SIGTERM or SIGHUP.
///
/// The first such signal is only noted, so that a stream can be stopped in an orderly way; the
/// second one ends the process as if it were not handled. A signal that the process was started to
/// ignore stays ignored.
class StopSignal {
 public:
  /// Throws std::system_error when the system has no descriptor left.
  StopSignal();
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  /// From now on the process's signals come here. One object at a time may listen.
  void listen();

  /// Notes the signal as if it had come. May be called from a signal handler.
  void note(int signal) noexcept;

  /// The first signal noted; 0 when there was none.
  int received() const noexcept { return received_.load(std::memory_order_relaxed); }

  /// Throws Interrupted once a signal has come.
  void throwIfReceived() const;

  /// Becomes readable with the first signal, for use in poll().
  int descriptor() const noexcept { return descriptor_; }

 private:
  int descriptor_;
  std::atomic<int> received_{0};
};

}  // namespace korvex::tool

#endif
