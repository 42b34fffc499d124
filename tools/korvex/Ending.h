#ifndef KORVEX_TOOL_ENDING_H
#define KORVEX_TOOL_ENDING_H

#include "common/ExitCode.h"

namespace korvex::tool {

/// How a command ended. With a signal, the process is to end by that signal.
struct Ending {
  int exitCode;
  int signal;
};

/// The code that a shell reports for a process ended by this signal.
inline Ending endedBySignal(int signal) { return {common::codeAfterSignal(signal), signal}; }

}  // namespace korvex::tool

#endif
