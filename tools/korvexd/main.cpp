#include <spdlog/spdlog.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <iostream>
#include <memory>

#include "common/ExitCode.h"
#include "common/StandardDescriptors.h"
#include "korvexd/Daemon.h"
#include "korvexd/Options.h"
#include "korvexd/exec/Keeper.h"
#include "korvexd/report/LogSink.h"

namespace {

using korvex::common::codeOf;
using korvex::common::ExitCode;

/// How long the end waits for somebody to read the log.
constexpr std::chrono::seconds kLogPatience{2};

int serve(const korvexd::Options& options) {
  try {
    korvexd::Daemon(options).run();
    return codeOf(ExitCode::Success);
  } catch (const std::exception& error) {
    spdlog::error("{}", error.what());
    return codeOf(ExitCode::Failed);
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
  expectReportSignal();
  korvex::common::occupyStandardDescriptors();
  const ParsedOptions parsed = parseOptions(argc, argv, std::cout, std::cerr);
  if (!parsed.options) return parsed.exitCode;
  if (!startLog()) return codeOf(ExitCode::Failed);
  const int exitCode = serve(*parsed.options);
  spdlog::shutdown();  // the last lines are written here
  return exitCode;
}
