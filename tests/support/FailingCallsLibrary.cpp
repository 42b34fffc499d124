// Preloaded; see FailingCalls.h.

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/FailingCalls.h"

using korvex::test::FailureOrder;

namespace {

template <typename Function>
Function* systems(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

FailureOrder* findOrder() {
  const char* const path = std::getenv(korvex::test::kFailureOrderVariable);
  const int file = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
  if (file < 0) return nullptr;
  void* const page =
      ::mmap(nullptr, sizeof(FailureOrder), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  ::close(file);
  return page == MAP_FAILED ? nullptr : static_cast<FailureOrder*>(page);
}

/// Whether an open file or folder is the folder in question or inside of it.
bool isInFolder(int descriptor) {
  static const char* const folder = std::getenv(korvex::test::kFailingFolderVariable);
  char link[64];
  char path[PATH_MAX];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
  const ssize_t size = ::readlink(link, path, sizeof path - 1);
  if (folder == nullptr || size < 0) return false;
  path[size] = '\0';
  const std::size_t length = std::strlen(folder);
  return std::strncmp(path, folder, length) == 0 && (path[length] == '/' || path[length] == '\0');
}

void hang(const FailureOrder& order) {
  while (order.callsUntilFailure != 0) ::usleep(1000);
}

/// Whether this call is to fail; errno is set then.
bool mustFail(int descriptor) {
  static FailureOrder* const order = findOrder();
  if (order == nullptr || order->callsUntilFailure == 0 || !isInFolder(descriptor)) return false;
  if (order->callsUntilFailure > 1) {
    --order->callsUntilFailure;
    return false;
  }
  if (order->kind == FailureOrder::Kind::Single) order->callsUntilFailure = 0;
  order->happened = true;
  if (order->kind == FailureOrder::Kind::Hanging) {
    hang(*order);
    return false;
  }
  errno = order->error;
  return true;
}

}  // namespace

extern "C" {

int openat(int folder, const char* name, int flags, ...) {
  static auto* const system = systems<int(int, const char*, int, ...)>("openat");
  std::va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return mustFail(folder) ? -1 : system(folder, name, flags, mode);
}

int mkdirat(int folder, const char* name, mode_t mode) noexcept {
  static auto* const system = systems<int(int, const char*, mode_t)>("mkdirat");
  return mustFail(folder) ? -1 : system(folder, name, mode);
}

ssize_t write(int file, const void* data, size_t size) {
  static auto* const system = systems<ssize_t(int, const void*, size_t)>("write");
  return mustFail(file) ? -1 : system(file, data, size);
}

int fsync(int file) {
  static auto* const system = systems<int(int)>("fsync");
  return mustFail(file) ? -1 : system(file);
}

int fdatasync(int file) {
  static auto* const system = systems<int(int)>("fdatasync");
  return mustFail(file) ? -1 : system(file);
}

int renameat(int from, const char* name, int to, const char* newName) noexcept {
  static auto* const system = systems<int(int, const char*, int, const char*)>("renameat");
  return mustFail(from) ? -1 : system(from, name, to, newName);
}

int renameat2(int from, const char* name, int to, const char* newName, unsigned flags) noexcept {
  static auto* const system =
      systems<int(int, const char*, int, const char*, unsigned)>("renameat2");
  return mustFail(from) ? -1 : system(from, name, to, newName, flags);
}
}
