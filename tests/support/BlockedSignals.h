#ifndef TESTS_SUPPORT_BLOCKED_SIGNALS_H
#define TESTS_SUPPORT_BLOCKED_SIGNALS_H

#include <fstream>
#include <string>
#include <sys/types.h>

namespace korvex::test {

/// Whether a process or thread keeps a signal waiting.
inline bool blocks(pid_t task, int signal) {
  std::ifstream status("/proc/" + std::to_string(task) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("SigBlk:", 0) != 0) continue;
    return (std::stoull(line.substr(7), nullptr, 16) & 1ULL << (signal - 1)) != 0;
  }
  return false;
}

}  // namespace korvex::test

#endif
