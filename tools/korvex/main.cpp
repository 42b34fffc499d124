#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <exception>
#include <iostream>

#include "CommandLine.h"
#include "Failure.h"

namespace {

/// A closed standard descriptor would be given to the next file that is opened, and data or a
/// message would end up there. What takes its place can neither be read nor, for input, written.
void occupyStandardDescriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) != -1) continue;
    static_cast<void>(::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDWR));
  }
}

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
  std::cout.flush();
  if (ending.signal != 0) endBySignal(ending.signal);
  return ending.exitCode;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  occupyStandardDescriptors();
  // A reader that left early must not kill the stream; writing then fails where it is looked at.
  ::signal(SIGPIPE, SIG_IGN);
  try {
    return runMain(argumentCount, arguments);
  } catch (const std::exception& error) {
    std::cerr << "korvex: " << error.what() << std::endl;
    return static_cast<int>(korvex::tool::ExitCode::Failed);
  }
}
