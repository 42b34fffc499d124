#include "status/Clean.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <korvex/receiver/BusErrorGuard.h>
#include <nlohmann/json.hpp>
#include <ostream>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include "JsonLine.h"
#include "common/ExitCode.h"
#include "common/Printable.h"
#include "common/QueueName.h"
#include "status/CleanPlan.h"

namespace korvex::tool {
namespace {

using Items = std::vector<CleanItem>;
using Json = nlohmann::ordered_json;

std::size_t countToGo(const Items& items) {
  return static_cast<std::size_t>(std::count_if(
      items.begin(), items.end(), [](const CleanItem& item) { return item.isToGo(); }));
}

void show(const CleanPlan& plan, std::ostream& out, std::ostream& errors) {
  for (const CleanItem& item : plan.items) {
    out << (item.isToGo() ? "remove  " : "keep    ") << common::printable(item.name) << ": "
        << (item.isToGo() ? item.found : item.obstacle) << '\n';
  }
  if (plan.items.empty()) out << "no queues in shared memory\n";
  if (plan.unexamined == 0 || countToGo(plan.items) == 0) return;
  out.flush();  // both may be one terminal
  errors << "korvex: not examined, but may have these queues open: " << plan.unexamined
         << (plan.unexamined == 1 ? " process" : " processes") << std::endl;
}

void showResult(const Items& planned, const Items& items, std::ostream& out, std::ostream& errors) {
  for (std::size_t i = 0; i < items.size(); ++i) {
    const std::string name = common::printable(items[i].name);
    if (items[i].isRemoved) out << "removed " << name << '\n';
    if (planned[i].isToGo() && !items[i].isRemoved) {
      errors << "korvex: " << name << " was kept: " << items[i].obstacle << std::endl;
    }
  }
}

std::string jsonOf(const Items& items, std::size_t unexamined, const std::string& error,
                   int exitCode) {
  Json queues = Json::array();
  for (const CleanItem& item : items) {
    queues.push_back({{"name", common::jsonNameOf(item.name)},
                      {"halfMade", item.kind == CleanItem::Kind::HalfMade},
                      {"removed", item.isRemoved},
                      {"found", item.found},
                      {"obstacle", item.obstacle}});
  }
  return jsonLine({{"queues", queues},
                   {"unexaminedProcesses", unexamined},
                   {"error", error},
                   {"exitCode", exitCode}});
}

/// The first byte of the answer; 0 when a signal came or there is no answer.
char readAnswer(const StopSignal& stop) {
  pollfd ends[] = {{STDIN_FILENO, POLLIN, 0}, {stop.descriptor(), POLLIN, 0}};
  while (::poll(ends, 2, -1) < 0 && errno == EINTR) {
  }
  char line[256] = {};
  return stop.received() == 0 && ::read(STDIN_FILENO, line, sizeof line) > 0 ? line[0] : '\0';
}

enum class Consent { Given, Refused, NoTerminal };

Consent ask(std::size_t count, const StopSignal& stop, std::ostream& out) {
  if (::isatty(STDIN_FILENO) != 1 || ::isatty(STDOUT_FILENO) != 1) return Consent::NoTerminal;
  ::tcflush(STDIN_FILENO, TCIFLUSH);  // typed before the question, it is no answer
  out << "Remove " << (count == 1 ? "it" : "these " + std::to_string(count)) << "? [y/N] "
      << std::flush;
  const char answer = readAnswer(stop);
  return answer == 'y' || answer == 'Y' ? Consent::Given : Consent::Refused;
}

/// Why nothing is removed; empty when it may be.
std::string objection(const CleanOptions& options, const Items& items, const StopSignal& stop,
                      std::ostream& out) {
  if (options.yes || countToGo(items) == 0) return "";
  const Consent consent = options.json ? Consent::NoTerminal : ask(countToGo(items), stop, out);
  switch (consent) {
    case Consent::Refused:
      return "nothing was removed";
    case Consent::NoTerminal:
      return "nothing was removed: without a terminal --yes is needed";
    case Consent::Given:
      break;
  }
  return "";
}

/// Keeping a pair that was named is a failure; skipping one in use is not.
bool isDone(const CleanOptions& options, const Items& planned, const Items& items) {
  for (std::size_t i = 0; i < items.size(); ++i) {
    const bool wasWanted = planned[i].isToGo() || !options.queue.empty();
    if (wasWanted && !items[i].isRemoved) return false;
  }
  return true;
}

std::string missing(const CleanOptions& options, const Items& items) {
  if (options.queue.empty() || !items.empty()) return "";
  return "queue '" + common::printable(options.queue) + "' does not exist";
}

}  // namespace

CLI::App* declareClean(CLI::App& tool, CleanOptions& options) {
  CLI::App* const clean =
      tool.add_subcommand("clean", "Remove queues that a dead daemon left behind");
  clean->add_option("--queue", options.queue, "Remove only this pair of queues")
      ->check(common::checkQueueName)
      ->type_name("NAME");
  clean->add_flag("--yes", options.yes, "Remove without asking");
  clean->add_flag("--json", options.json, "Write the result to standard output as a JSON object");
  return clean;
}

Ending runClean(const CleanOptions& options, const StopSignal& stop, std::ostream& out,
                std::ostream& errors) {
  receiver::installBusErrorGuard();  // a queue may be truncated while it is examined
  const CleanPlan plan = planCleaning(common::plainQueueName(options.queue));
  const Items& planned = plan.items;
  std::string error = missing(options, planned);
  if (!options.json && error.empty()) show(plan, out, errors);
  if (error.empty()) error = objection(options, planned, stop, out);
  if (stop.received() != 0) return endedBySignal(stop.received());
  Items items = planned;
  if (error.empty()) removeItems(items);
  const bool isGood = error.empty() && isDone(options, planned, items);
  const int exitCode = codeOf(isGood ? common::ExitCode::Success : common::ExitCode::Failed);
  if (!error.empty()) errors << "korvex: " << error << std::endl;
  if (options.json) {
    out << jsonOf(items, plan.unexamined, error, exitCode) << '\n';
  } else if (error.empty()) {
    showResult(planned, items, out, errors);
  }
  return {exitCode, 0};
}

}  // namespace korvex::tool
