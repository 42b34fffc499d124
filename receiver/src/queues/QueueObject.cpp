#include "queues/QueueObject.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>

namespace korvexd {
namespace {

const std::string kSharedMemoryFolder = "/dev/shm/";

}  // namespace

File openQueueObject(const std::string& name) {
  // Non-blocking, so that a pipe under the name does not hold the daemon up.
  return File(::shm_open(name.c_str(), O_RDWR | O_NONBLOCK, 0));
}

bool claimQueueObject(const File& object) {
  return ::flock(object.descriptor(), LOCK_EX | LOCK_NB) == 0;
}

bool lookAtQueueObject(const std::string& name, struct stat& found) noexcept {
  return ::lstat((kSharedMemoryFolder + name).c_str(), &found) == 0;
}

bool queueObjectExists(const std::string& name) noexcept {
  struct stat found = {};
  return lookAtQueueObject(name, found) || errno != ENOENT;
}

bool isQueueObjectNamed(const File& object, const std::string& name) noexcept {
  struct stat own = {};
  struct stat named = {};
  return ::fstat(object.descriptor(), &own) == 0 && lookAtQueueObject(name, named) &&
         own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

}  // namespace korvexd
