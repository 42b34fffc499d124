#include "support/EngineProcesses.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace korvex::test {
namespace {

namespace fs = std::filesystem;

/// Empty when the process is gone or not ours. It may go while its file is read, which fails then:
/// a stream takes note of that, its iterators would throw.
std::string read(pid_t process, const std::string& name) {
  const std::ifstream file("/proc/" + std::to_string(process) + "/" + name, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

template <typename Condition>
std::vector<pid_t> processesWith(Condition condition) {
  std::vector<pid_t> found;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const pid_t process = std::stoi(name);
    if (condition(process)) found.push_back(process);
  }
  return found;
}

std::string parentOf(pid_t process) {
  const std::string status = read(process, "status");
  const std::string field = "PPid:\t";
  const std::size_t start = status.find(field);
  if (start == std::string::npos) return "";
  const std::size_t number = start + field.size();
  return status.substr(number, status.find('\n', number) - number);
}

}  // namespace

std::vector<pid_t> processesFor(const std::string& queue) {
  const std::string variable = std::string(1, '\0') + "KORVEX_QUEUE=" + queue + '\0';
  return processesWith([&](pid_t process) {
    return ('\0' + read(process, "environ")).find(variable) != std::string::npos;
  });
}

std::vector<pid_t> keepersFor(const std::string& queue) {
  std::vector<pid_t> found = processesFor(queue);
  const auto isOther = [](pid_t process) { return read(process, "comm") != "korvexd-keeper\n"; };
  found.erase(std::remove_if(found.begin(), found.end(), isOther), found.end());
  // A process that a keeper has just forked has that name too, until it execs the engine.
  const std::vector<pid_t> all = found;
  const auto isForked = [&](pid_t process) {
    return std::any_of(all.begin(), all.end(),
                       [&](pid_t keeper) { return parentOf(process) == std::to_string(keeper); });
  };
  found.erase(std::remove_if(found.begin(), found.end(), isForked), found.end());
  return found;
}

std::vector<pid_t> childrenOf(pid_t parent) {
  return processesWith([&](pid_t process) { return parentOf(process) == std::to_string(parent); });
}

std::size_t descriptorsOf(pid_t process) {
  const fs::directory_iterator all("/proc/" + std::to_string(process) + "/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

}  // namespace korvex::test
