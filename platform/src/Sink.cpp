#include "Sink.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <utility>

#include "Destination.h"
#include "Layout.h"
#include "NoCancellation.h"

namespace qmx {
namespace {

/// Set while this thread is inside a destination. A receiver that logs or forks would otherwise
/// deadlock on the lock that its own thread holds.
thread_local bool insideDestination = false;

/// The process's sink. The lock is held while a line is written, so that a replaced destination is
/// no longer in use when the replacing call returns.
struct Current {
  Current();

  std::mutex mutex;
  std::unique_ptr<Destination> destination = standardError();
};

/// Never destroyed: threads and static objects may log until the very end of the process.
Current& current() {
  static Current* const only = new Current;
  return *only;
}

// Created when the library is loaded. If the first line created it, a fork at that moment would
// leave the child with a static initialisation guard that is never released.
[[maybe_unused]] const Current& madeAtLoad = current();

// Otherwise a child that is forked while another thread writes a line would find the lock taken
// forever.
void lockForFork() {
  if (!insideDestination) current().mutex.lock();
}

void unlockAfterFork() {
  if (!insideDestination) current().mutex.unlock();
}

Current::Current() { ::pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork); }

/// Gives a thread the sink to itself for a scope.
class Turn {
 public:
  Turn() : lock_(current().mutex) { insideDestination = true; }
  ~Turn() { insideDestination = false; }

 private:
  const std::lock_guard<std::mutex> lock_;
};

/// `make` returns the next destination, or throws.
template <typename Make>
void replaceBy(Make make) {
  const NoCancellation noCancellation;
  std::unique_ptr<Destination> next = make();
  const Turn turn;
  current().destination = std::move(next);
}

/// False when the destination could not take the line.
bool offer(const Line& line) noexcept {
  const Turn turn;
  try {
    current().destination->write(line);
    return true;
  } catch (...) {
    return false;
  }
}

void writeToStandardError(const Line& line) noexcept {
  try {
    const std::string text = layOut(line) + '\n';
    std::fwrite(text.data(), 1, text.size(), stderr);
  } catch (...) {
    reportLostLine();
  }
}

}  // namespace

void write(const Line& line) noexcept {
  const int callersErrno = errno;
  if (insideDestination || !offer(line)) writeToStandardError(line);
  errno = callersErrno;
}

void reportLostLine() noexcept { std::fputs("qmx: a line was lost: out of memory\n", stderr); }

void logToStandardError() { replaceBy(standardError); }

void logToFile(const std::string& path) {
  replaceBy([&] { return file(path); });
}

void logToSystemLog(const std::string& identity) {
  replaceBy([&] { return systemLog(identity); });
}

void logToCallback(std::function<void(const Line&)> receiver) {
  replaceBy([&] { return callback(std::move(receiver)); });
}

}  // namespace qmx
