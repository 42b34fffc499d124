#include "korvexd/ChildProcesses.h"

#include <dirent.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "korvexd/SystemError.h"

namespace korvexd {
namespace {

/// The parent of a process; 0 when it is gone. "PID (NAME) STATE PARENT ...", and the name may hold
/// brackets and blanks of its own.
pid_t parentOf(const std::string& process) {
  std::ifstream file("/proc/" + process + "/stat", std::ios::binary);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  const std::size_t name = text.rfind(") ");
  const std::size_t state = name + 2;
  if (name == std::string::npos || state + 2 >= text.size()) return 0;
  return static_cast<pid_t>(std::strtol(text.c_str() + state + 2, nullptr, 10));
}

bool isProcess(const char* name) { return *name >= '1' && *name <= '9'; }

}  // namespace

void adoptDescendants() {
  if (::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
    throw SystemError("becoming the parent of orphaned processes", errno);
  }
}

std::vector<pid_t> childrenOfThisProcess() {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc"), ::closedir);
  if (folder == nullptr) throw SystemError("opening /proc", errno);
  std::vector<pid_t> children;
  while (const dirent* const entry = ::readdir(folder.get())) {
    if (!isProcess(entry->d_name) || parentOf(entry->d_name) != ::getpid()) continue;
    children.push_back(static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10)));
  }
  return children;
}

}  // namespace korvexd
