#ifndef TESTS_SUPPORT_SHARED_OBJECT_H
#define TESTS_SUPPORT_SHARED_OBJECT_H

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <pthread.h>
#include <signal.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/Bytes.h"
#include "support/QueueFields.h"

namespace korvex::test {

/// A shared-memory object with any content, as a dying or hostile process may leave one. Removed at
/// the end.
class SharedObject {
 public:
  explicit SharedObject(std::string name, const Bytes& content = {}) : name_(std::move(name)) {
    file_ = ::shm_open(name_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (file_ < 0) throw std::system_error(errno, std::generic_category(), name_);
    write(0, content);
  }
  ~SharedObject() {
    ::close(file_);
    ::shm_unlink(name_.c_str());
  }
  SharedObject(const SharedObject&) = delete;
  SharedObject& operator=(const SharedObject&) = delete;

  const std::string& name() const { return name_; }

  void write(off_t offset, const Bytes& bytes) {
    if (::pwrite(file_, bytes.data(), bytes.size(), offset) != static_cast<ssize_t>(bytes.size())) {
      throw std::system_error(errno, std::generic_category(), name_);
    }
  }

  void resize(off_t size) {
    if (::ftruncate(file_, size) != 0) throw std::runtime_error("ftruncate " + name_);
  }

 private:
  std::string name_;
  int file_;
};

/// The bytes of an existing shared-memory object or file.
inline Bytes bytesOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

inline Bytes bytesOfObject(const std::string& name) { return bytesOfFile("/dev/shm/" + name); }

/// How often this process has an object mapped that has, or had, this name.
inline std::size_t mappingsOf(const std::string& name) {
  std::ifstream maps("/proc/self/maps");
  std::size_t count = 0;
  for (std::string line; std::getline(maps, line);) count += line.find(name) != line.npos;
  return count;
}

/// The lock of an existing queue, for tests that take it and never release it.
class QueueLock {
 public:
  explicit QueueLock(const std::string& name) {
    const int file = ::shm_open(name.c_str(), O_RDWR, 0);
    if (file < 0) throw std::system_error(errno, std::generic_category(), name);
    window_ = ::mmap(nullptr, kWindow, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::close(file);
    if (window_ == MAP_FAILED) throw std::runtime_error("cannot map " + name);
  }
  ~QueueLock() { ::munmap(window_, kWindow); }
  QueueLock(const QueueLock&) = delete;
  QueueLock& operator=(const QueueLock&) = delete;

  pthread_mutex_t* mutex() const {
    return reinterpret_cast<pthread_mutex_t*>(static_cast<char*>(window_) + kLockWordAt);
  }

  /// A number in the queue's header.
  std::atomic<std::uint64_t>& field(off_t offset) const {
    return *reinterpret_cast<std::atomic<std::uint64_t>*>(static_cast<char*>(window_) + offset);
  }

  /// Takes the lock in a thread that ends without releasing it.
  void takeAndDie() const {
    pid_t owner = 0;
    std::thread([&] {
      owner = ::gettid();
      ::pthread_mutex_lock(mutex());
    }).join();
    // A joined thread takes another moment to leave the system.
    while (::tgkill(::getpid(), owner, 0) == 0) std::this_thread::yield();
  }

  /// Makes the lock a robust one, as newer releases of the queue library create it.
  void makeRobust() const {
    pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    ::pthread_mutex_init(mutex(), &attributes);
    ::pthread_mutexattr_destroy(&attributes);
  }

 private:
  static constexpr std::size_t kWindow = kIndexAt;
  void* window_;
};

}  // namespace korvex::test

#endif
