#include <spdlog/spdlog.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <iostream>
#include <memory>

#include "korvexd/Daemon.h"
#include "korvexd/ExitCode.h"
#include "korvexd/Keeper.h"
#include "korvexd/LogSink.h"
#include "korvexd/Options.h"
#include "support/StandardDescriptors.h"

namespace {

/// How long the end waits for somebody to read the log.
constexpr std::chrono::seconds kLogPatience{2};

int serve(const korvexd::Options& options) {
  try {
    korvexd::Daemon(options).run();
    return korvexd::kExitDone;
  } catch (const std::exception& error) {
    spdlog::error("{}", error.what());
    return korvexd::kExitFailed;
  }
}

bool startLog() {
  try {
    spdlog::set_default_logger(std::make_shared<spdlog::logger>(
        "korvexd", std::make_shared<korvexd::LogSink>(STDERR_FILENO, kLogPatience)));
    return true;
  } catch (const std::exception& error) {
    std::cerr << "korvexd: " << error.what() << std::endl;
    return false;
  }
}

}  // namespace

int main(int argc, char** argv) {
  using namespace korvexd;
  if (isKeeper(argc, argv)) return runKeeper(argc, argv);
  korvex::occupyStandardDescriptors();
  const ParsedOptions parsed = parseOptions(argc, argv, std::cout, std::cerr);
  if (!parsed.options) return parsed.exitCode;
  if (!startLog()) return kExitFailed;
  const int exitCode = serve(*parsed.options);
  spdlog::shutdown();  // the last lines are written here
  return exitCode;
}
