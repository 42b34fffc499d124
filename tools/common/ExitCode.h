#ifndef KORVEX_COMMON_EXIT_CODE_H
#define KORVEX_COMMON_EXIT_CODE_H

namespace korvex::common {

/// The exit codes, the same for the daemon and every command. A program that a signal ended gives
/// 128 and the signal's number instead.
enum class ExitCode : int {
  Success = 0,
  Failed = 1,
  WrongUsage = 2,
  NoReceipt = 3  ///< cannot tell: all was sent, no receipt came in time
};

constexpr int codeOf(ExitCode exitCode) { return static_cast<int>(exitCode); }

constexpr int codeAfterSignal(int signal) { return 128 + signal; }

}  // namespace korvex::common

#endif
