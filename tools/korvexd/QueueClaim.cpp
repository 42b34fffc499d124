#include "korvexd/QueueClaim.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>

namespace korvexd {

File openQueueObject(const std::string& name) {
  // Non-blocking, so that a pipe under the name does not hold the daemon up.
  return File(::shm_open(name.c_str(), O_RDWR | O_NONBLOCK, 0));
}

bool claimQueueObject(const File& object) {
  return ::flock(object.descriptor(), LOCK_EX | LOCK_NB) == 0;
}

}  // namespace korvexd
