#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <exception>
#include <iostream>

#include "korvexd/Daemon.h"
#include "korvexd/ExitCode.h"
#include "korvexd/Options.h"
#include "support/StandardDescriptors.h"

int main(int argc, char** argv) {
  using namespace korvexd;
  korvex::occupyStandardDescriptors();
  const ParsedOptions parsed = parseOptions(argc, argv, std::cout, std::cerr);
  if (!parsed.options) return parsed.exitCode;
  spdlog::set_default_logger(spdlog::stderr_logger_mt("korvexd"));
  try {
    Daemon(*parsed.options).run();
    return kExitDone;
  } catch (const std::exception& error) {
    spdlog::error("{}", error.what());
    return kExitFailed;
  }
}
