#include "support/Queues.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/QueueFields.h"

namespace korvex::test {
namespace {

[[noreturn]] void lockAndDie(unsigned char* object) {
  ::pthread_mutex_lock(reinterpret_cast<pthread_mutex_t*>(object + kLockWordAt));
  ::kill(::getpid(), SIGKILL);
  ::_exit(1);
}

}  // namespace

bool queueExists(const std::string& name) {
  struct stat found = {};
  return ::stat(("/dev/shm/" + name).c_str(), &found) == 0;
}

QueueRemover::~QueueRemover() {
  ::shm_unlink(name_.c_str());
  ::shm_unlink((name_ + "Response").c_str());
}

void dieHoldingLockOf(const std::string& queue) {
  const int file = ::shm_open(queue.c_str(), O_RDWR, 0);
  struct stat found = {};
  if (file < 0 || ::fstat(file, &found) != 0) throw std::runtime_error("no queue " + queue);
  const auto size = static_cast<std::size_t>(found.st_size);
  void* const object = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  ::close(file);
  if (object == MAP_FAILED) throw std::runtime_error("cannot map queue " + queue);
  const pid_t child = ::fork();
  if (child == 0) lockAndDie(static_cast<unsigned char*>(object));
  int status = 0;
  if (child > 0) ::waitpid(child, &status, 0);
  ::munmap(object, size);
  if (child < 0 || !WIFSIGNALED(status)) throw std::runtime_error("nobody died with the lock");
}

}  // namespace korvex::test
