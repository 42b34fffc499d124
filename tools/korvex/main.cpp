#include <exception>
#include <iostream>
#include <signal.h>
#include <unistd.h>

#include "CommandLine.h"
#include "Failure.h"
#include "common/StandardDescriptors.h"
#include "send/ProgressSignal.h"

namespace {

/// So that the caller sees how the process ended.
void endBySignal(int signal) {
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

int runMain(int argumentCount, char** arguments) {
  using namespace korvex::tool;
  StopSignal stop;
  stop.listen();
  const Progress progress =
      ::isatty(STDERR_FILENO) == 1 ? Progress(std::cerr, terminalWidth) : Progress();
  const Ending ending = runTool(argumentCount, arguments, stop, progress, std::cout, std::cerr);
  if (ending.signal != 0) endBySignal(ending.signal);
  return ending.exitCode;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  korvex::tool::ProgressSignal::expect();
  korvex::common::occupyStandardDescriptors();
  // A reader of our output that exits early must not kill the stream. The write then fails with
  // EPIPE, where that is checked.
  ::signal(SIGPIPE, SIG_IGN);
  try {
    return runMain(argumentCount, arguments);
  } catch (const std::exception& error) {
    std::cerr << "korvex: " << error.what() << std::endl;
    return static_cast<int>(korvex::common::ExitCode::Failed);
  }
}
