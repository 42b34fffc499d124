#include <algorithm>
#include <chrono>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <spdlog/spdlog.h>
#include <unistd.h>
#include <vector>

#include "common/ExitCode.h"
#include "common/Printable.h"
#include "common/StandardDescriptors.h"
#include "korvexd/Daemon.h"
#include "korvexd/Options.h"
#include "korvexd/exec/Keeper.h"
#include "korvexd/log/LogSink.h"
#include "korvexd/service/ServiceManager.h"

namespace {

using korvex::common::codeOf;
using korvex::common::ExitCode;

/// How long shutdown waits for the log to be read.
constexpr std::chrono::seconds kLogPatience{2};

int serve(const korvexd::CommandLine& commandLine, const korvexd::Settings& settings,
          korvexd::ServiceManager& manager) {
  try {
    korvexd::Daemon(commandLine, settings, manager).run();
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

/// A mount may be late: a service manager tries again after Failed, but not after WrongUsage.
ExitCode codeAfter(const std::vector<korvexd::Mistake>& mistakes, korvexd::Options::Task task) {
  const bool isAllOfTheSystem =
      std::all_of(mistakes.begin(), mistakes.end(), [](const korvexd::Mistake& mistake) {
        return mistake.remedy == korvexd::Mistake::Remedy::System;
      });
  const bool mayComeRight = task == korvexd::Options::Task::Serve && isAllOfTheSystem;
  return mayComeRight ? ExitCode::Failed : ExitCode::WrongUsage;
}

/// Everything but the usual: the code to exit with, unless the daemon is to serve.
std::optional<int> answer(korvexd::Options::Task task, const korvexd::Configuration& found) {
  using Task = korvexd::Options::Task;
  for (const korvexd::Mistake& mistake : found.mistakes()) {
    std::cerr << found.textOf(mistake) << '\n';
  }
  if (!found.mistakes().empty()) return codeOf(codeAfter(found.mistakes(), task));
  if (task == Task::PrintConfig) found.print(std::cout);
  if (task == Task::Serve) return std::nullopt;
  return codeOf(std::cout.flush() ? ExitCode::Success : ExitCode::Failed);
}

int run(const korvexd::Options& options) {
  std::optional<korvexd::Configuration> found;
  try {
    found.emplace(korvexd::readConfiguration(options.commandLine));
    const bool printsOnly = options.task == korvexd::Options::Task::PrintConfig;
    if (options.commandLine.configFile && !printsOnly) {
      found->checkSystem([](const korvexd::QueueSettings&) { return false; });
    }
  } catch (const std::exception& error) {
    std::cerr << "korvexd: " << korvex::common::printable(error.what()) << '\n';
    return codeOf(ExitCode::Failed);
  }
  if (const auto exitCode = answer(options.task, *found)) return *exitCode;
  korvexd::ServiceManager manager;
  if (!startLog(found->settings().daemon.logStyle)) return codeOf(ExitCode::Failed);
  const int exitCode = serve(options.commandLine, found->settings(), manager);
  spdlog::shutdown();  // the last lines are written here
  return exitCode;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace korvexd;
  if (isKeeper(argc, argv)) return runKeeper(argc, argv);
  expectReportSignal();
  korvex::common::occupyStandardDescriptors();
  const ParsedOptions parsed = parseOptions(argc, argv, std::cout, std::cerr);
  return parsed.options ? run(*parsed.options) : parsed.exitCode;
}
