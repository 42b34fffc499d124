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
#include "korvexd/log/LogSink.h"
#include "korvexd/service/ServiceManager.h"

namespace {

using korvex::common::codeOf;
using korvex::common::ExitCode;

/// How long the end waits for somebody to read the log.
constexpr std::chrono::seconds kLogPatience{2};

int serve(const korvexd::Options& options, korvexd::ServiceManager& manager) {
  try {
    korvexd::Daemon(options, manager).run();
    return codeOf(ExitCode::Success);
  } catch (const std::exception& error) {
    korvexd::writeLog({korvexd::Event::DaemonFailed, spdlog::level::err, "", error.what()});
    return codeOf(ExitCode::Failed);
  }
}

bool startLog(korvexd::LogStyle style) {
  try {
    spdlog::set_default_logger(std::make_shared<spdlog::logger>(
        "korvexd", std::make_shared<korvexd::LogSink>(
                       STDERR_FILENO, kLogPatience,
                       korvexd::LogFormat(style, korvexd::readerOf(STDERR_FILENO)))));
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
  korvex::common::occupyStandardDescriptors();
  const ParsedOptions parsed = parseOptions(argc, argv, std::cout, std::cerr);
  if (!parsed.options) return parsed.exitCode;
  ServiceManager manager;
  if (!startLog(parsed.options->logStyle)) return codeOf(ExitCode::Failed);
  const int exitCode = serve(*parsed.options, manager);
  spdlog::shutdown();  // the last lines are written here
  return exitCode;
}
