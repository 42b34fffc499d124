// The checked variants are inline definitions of these calls; clang refuses another beside them.
#undef _FORTIFY_SOURCE

#include "unit/queue/SystemCalls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

namespace system_calls {
namespace {

template <typename Function>
Function* systems(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

Instead instead;

int shmOpen(const char* name, int flags, mode_t mode) {
  static auto* const call = systems<int(const char*, int, mode_t)>("shm_open");
  return call(name, flags, mode);
}

int posixFallocate(int file, off_t offset, off_t size) {
  static auto* const call = systems<int(int, off_t, off_t)>("posix_fallocate");
  return call(file, offset, size);
}

int fstat(int file, struct stat* found) {
  static auto* const call = systems<int(int, struct stat*)>("fstat");
  return call(file, found);
}

int lstat(const char* path, struct stat* found) {
  static auto* const call = systems<int(const char*, struct stat*)>("lstat");
  return call(path, found);
}

ssize_t pread(int file, void* bytes, std::size_t size, off_t offset) {
  static auto* const call = systems<ssize_t(int, void*, std::size_t, off_t)>("pread");
  return call(file, bytes, size, offset);
}

int failing(int error) {
  errno = error;
  return -1;
}

}  // namespace system_calls

using system_calls::instead;
using system_calls::systems;

extern "C" {

int shm_open(const char* name, int flags, mode_t mode) {
  if (instead.shmOpen) return instead.shmOpen(name, flags, mode);
  return system_calls::shmOpen(name, flags, mode);
}

int posix_fallocate(int file, off_t offset, off_t size) {
  if (instead.posixFallocate) return instead.posixFallocate(file, offset, size);
  return system_calls::posixFallocate(file, offset, size);
}

int fstat(int file, struct stat* found) noexcept {
  return instead.fstat ? instead.fstat(file, found) : system_calls::fstat(file, found);
}

int lstat(const char* path, struct stat* found) noexcept {
  return instead.lstat ? instead.lstat(path, found) : system_calls::lstat(path, found);
}

void* mmap(void* place, std::size_t size, int access, int flags, int file, off_t offset) noexcept {
  if (instead.mmap && file >= 0) return instead.mmap(file);
  static auto* const call = systems<void*(void*, std::size_t, int, int, int, off_t)>("mmap");
  return call(place, size, access, flags, file, offset);
}

ssize_t pread(int file, void* bytes, std::size_t size, off_t offset) {
  if (instead.pread) return instead.pread(file, bytes, size, offset);
  return system_calls::pread(file, bytes, size, offset);
}

int open(const char* path, int flags, ...) {
  if (instead.open) return instead.open(path);
  static auto* const call = systems<int(const char*, int, ...)>("open");
  std::va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return call(path, flags, mode);
}

ssize_t read(int file, void* bytes, std::size_t size) {
  if (instead.read) return instead.read(file, bytes, size);
  static auto* const call = systems<ssize_t(int, void*, std::size_t)>("read");
  return call(file, bytes, size);
}

int kill(pid_t process, int signal) noexcept {
  if (instead.kill) return instead.kill(process, signal);
  static auto* const call = systems<int(pid_t, int)>("kill");
  return call(process, signal);
}

int madvise(void* memory, std::size_t size, int advice) noexcept {
  if (instead.madvise) return instead.madvise(memory, size, advice);
  static auto* const call = systems<int(void*, std::size_t, int)>("madvise");
  return call(memory, size, advice);
}
}
