#ifndef TESTS_SUPPORT_SYSTEM_CALLS_H
#define TESTS_SUPPORT_SYSTEM_CALLS_H

#include <cstddef>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

/// Stands between a test program and the system: the program's own definitions of these calls come
/// before the system's, and do what the test wants or else what the system does.
namespace korvex::test::system_calls {

/// What a test wants instead; empty for what the system does.
struct Instead {
  std::function<int(const char* name, int flags, mode_t mode)> shmOpen;
  std::function<int(int file, off_t offset, off_t size)> posixFallocate;
  std::function<int(int file, struct stat* found)> fstat;
  std::function<int(const char* path, struct stat* found)> lstat;
  std::function<int(const char* path, struct stat* found)> stat;
  std::function<void*(int file)> mmap;  ///< only of files
  std::function<ssize_t(int file, void* bytes, std::size_t size, off_t offset)> pread;
  std::function<int(const char* path)> open;
  std::function<dirent*()> readdir;
  std::function<ssize_t(int file, void* bytes, std::size_t size)> read;
  std::function<int(pid_t process, int signal)> kill;
  std::function<int(void* memory, std::size_t size, int advice)> madvise;
  std::function<int(pollfd* files, nfds_t count, int milliseconds)> poll;
  std::function<ssize_t(int file, const void* bytes, std::size_t size)> write;
  std::function<int(int folder, const char* name, int flags, mode_t mode)> openat;
  std::function<int(int folder, const char* name, mode_t mode)> mkdirat;
  std::function<int(int folder, const char* name)> unlinkat;
  std::function<int(int file)> sync;  ///< of the data alone or of everything
  std::function<int(int folder, const char* from, const char* to)> rename;  ///< in one folder
};

extern Instead instead;

// What the system does.
int shmOpen(const char* name, int flags, mode_t mode);
int posixFallocate(int file, off_t offset, off_t size);
int fstat(int file, struct stat* found);
int lstat(const char* path, struct stat* found);
ssize_t pread(int file, void* bytes, std::size_t size, off_t offset);
int open(const char* path, int flags);
ssize_t read(int file, void* bytes, std::size_t size);
int poll(pollfd* files, nfds_t count, int milliseconds);
ssize_t write(int file, const void* bytes, std::size_t size);
int openat(int folder, const char* name, int flags, mode_t mode);
int mkdirat(int folder, const char* name, mode_t mode);
int unlinkat(int folder, const char* name);
int sync(int file);
int rename(int folder, const char* from, const char* to);

/// Sets errno and gives what a failing call does.
int failing(int error);

/// Writes to a shared-memory object that exists already.
template <typename Value>
void overwrite(const std::string& name, off_t offset, Value value) {
  const int file = shmOpen(name.c_str(), O_RDWR, 0);
  EXPECT_EQ(::pwrite(file, &value, sizeof value, offset), ssize_t{sizeof value});
  ::close(file);
}

}  // namespace korvex::test::system_calls

#endif
