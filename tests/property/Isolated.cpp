#include "property/Isolated.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <system_error>

namespace property {
namespace {

// Sanitizers end a process with small numbers; these are ours.
constexpr int kGood = 50;
constexpr int kBad = 51;

constexpr std::size_t kNoteSize = 1 << 18;

/// Zeros at first, and shared with every child.
char* note() {
  static void* const place =
      ::mmap(nullptr, kNoteSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (place == MAP_FAILED) throw std::bad_alloc();
  return static_cast<char*>(place);
}

void hideOutput() {
  const int nowhere = ::open("/dev/null", O_WRONLY);
  ::dup2(nowhere, STDOUT_FILENO);
  ::dup2(nowhere, STDERR_FILENO);
}

}  // namespace

Ending runInChild(const std::function<bool()>& work, Output output) {
  note();
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child == 0) {
    if (output == Output::Hidden) hideOutput();
    std::exit(work() ? kGood : kBad);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!WIFEXITED(status)) return Ending::Crashed;
  if (WEXITSTATUS(status) == kGood) return Ending::Good;
  return WEXITSTATUS(status) == kBad ? Ending::Bad : Ending::Crashed;
}

void noteScript(const Script& script) {
  std::ostringstream stream;
  stream << script;
  const std::string text = stream.str().substr(0, kNoteSize - 1);
  std::memcpy(note(), text.c_str(), text.size() + 1);
}

std::string notedScript() { return note(); }

Script smallest(Script script, const std::function<bool(const Script&)>& fails) {
  for (;;) {
    const std::vector<Script> simpler = simplerScripts(script);
    const auto found = std::find_if(simpler.begin(), simpler.end(), fails);
    if (found == simpler.end()) return script;
    script = *found;
  }
}

}  // namespace property
