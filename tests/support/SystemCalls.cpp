// The checked variants are inline definitions of these calls; clang refuses another beside them.
#undef _FORTIFY_SOURCE

#include "support/SystemCalls.h"

#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

namespace korvex::test::system_calls {
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

int open(const char* path, int flags) {
  static auto* const call = systems<int(const char*, int, ...)>("open");
  return call(path, flags);
}

ssize_t read(int file, void* bytes, std::size_t size) {
  static auto* const call = systems<ssize_t(int, void*, std::size_t)>("read");
  return call(file, bytes, size);
}

int poll(pollfd* files, nfds_t count, int milliseconds) {
  static auto* const call = systems<int(pollfd*, nfds_t, int)>("poll");
  return call(files, count, milliseconds);
}

ssize_t write(int file, const void* bytes, std::size_t size) {
  static auto* const call = systems<ssize_t(int, const void*, std::size_t)>("write");
  return call(file, bytes, size);
}

int openat(int folder, const char* name, int flags, mode_t mode) {
  static auto* const call = systems<int(int, const char*, int, ...)>("openat");
  return call(folder, name, flags, mode);
}

int mkdirat(int folder, const char* name, mode_t mode) {
  static auto* const call = systems<int(int, const char*, mode_t)>("mkdirat");
  return call(folder, name, mode);
}

int unlinkat(int folder, const char* name) {
  static auto* const call = systems<int(int, const char*, int)>("unlinkat");
  return call(folder, name, 0);
}

int sync(int file) {
  static auto* const call = systems<int(int)>("fsync");
  return call(file);
}

int rename(int folder, const char* from, const char* to) {
  static auto* const call = systems<int(int, const char*, int, const char*)>("renameat");
  return call(folder, from, folder, to);
}

int failing(int error) {
  errno = error;
  return -1;
}

}  // namespace korvex::test::system_calls

using korvex::test::system_calls::instead;
using korvex::test::system_calls::systems;

extern "C" {

int shm_open(const char* name, int flags, mode_t mode) {
  if (instead.shmOpen) return instead.shmOpen(name, flags, mode);
  return korvex::test::system_calls::shmOpen(name, flags, mode);
}

int posix_fallocate(int file, off_t offset, off_t size) {
  if (instead.posixFallocate) return instead.posixFallocate(file, offset, size);
  return korvex::test::system_calls::posixFallocate(file, offset, size);
}

int fstat(int file, struct stat* found) noexcept {
  return instead.fstat ? instead.fstat(file, found)
                       : korvex::test::system_calls::fstat(file, found);
}

int lstat(const char* path, struct stat* found) noexcept {
  return instead.lstat ? instead.lstat(path, found)
                       : korvex::test::system_calls::lstat(path, found);
}

int stat(const char* path, struct stat* found) noexcept {
  if (instead.stat) return instead.stat(path, found);
  static auto* const call = systems<int(const char*, struct stat*)>("stat");
  return call(path, found);
}

dirent* readdir(DIR* folder) {
  if (instead.readdir) return instead.readdir();
  static auto* const call = systems<dirent*(DIR*)>("readdir");
  return call(folder);
}

void* mmap(void* place, std::size_t size, int access, int flags, int file, off_t offset) noexcept {
  if (instead.mmap && file >= 0) return instead.mmap(file);
  static auto* const call = systems<void*(void*, std::size_t, int, int, int, off_t)>("mmap");
  return call(place, size, access, flags, file, offset);
}

ssize_t pread(int file, void* bytes, std::size_t size, off_t offset) {
  if (instead.pread) return instead.pread(file, bytes, size, offset);
  return korvex::test::system_calls::pread(file, bytes, size, offset);
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
  return instead.read ? instead.read(file, bytes, size)
                      : korvex::test::system_calls::read(file, bytes, size);
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

int poll(pollfd* files, nfds_t count, int milliseconds) {
  if (instead.poll) return instead.poll(files, count, milliseconds);
  return korvex::test::system_calls::poll(files, count, milliseconds);
}

ssize_t write(int file, const void* bytes, std::size_t size) {
  return instead.write ? instead.write(file, bytes, size)
                       : korvex::test::system_calls::write(file, bytes, size);
}

// What open() becomes where the C library checks flags that it cannot see.
int __open_2(const char* path, int flags) { return ::open(path, flags, 0); }

int openat(int folder, const char* name, int flags, ...) {
  std::va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if (instead.openat) return instead.openat(folder, name, flags, mode);
  return korvex::test::system_calls::openat(folder, name, flags, mode);
}

int mkdirat(int folder, const char* name, mode_t mode) noexcept {
  if (instead.mkdirat) return instead.mkdirat(folder, name, mode);
  return korvex::test::system_calls::mkdirat(folder, name, mode);
}

int unlinkat(int folder, const char* name, int flags) noexcept {
  if (instead.unlinkat && flags == 0) return instead.unlinkat(folder, name);
  static auto* const call = systems<int(int, const char*, int)>("unlinkat");
  return call(folder, name, flags);
}

int fsync(int file) {
  return instead.sync ? instead.sync(file) : korvex::test::system_calls::sync(file);
}

int fdatasync(int file) {
  if (instead.sync) return instead.sync(file);
  static auto* const call = systems<int(int)>("fdatasync");
  return call(file);
}

int renameat(int from, const char* name, int to, const char* newName) noexcept {
  if (instead.rename) return instead.rename(from, name, newName);
  static auto* const call = systems<int(int, const char*, int, const char*)>("renameat");
  return call(from, name, to, newName);
}

int renameat2(int from, const char* name, int to, const char* newName, unsigned flags) noexcept {
  if (instead.rename) return instead.rename(from, name, newName);
  static auto* const call = systems<int(int, const char*, int, const char*, unsigned)>("renameat2");
  return call(from, name, to, newName, flags);
}
}
