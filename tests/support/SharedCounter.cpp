#include "support/SharedCounter.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

namespace korvex::test {
namespace {

using Number = std::atomic<unsigned>;

Number* map(int flags, int file) {
  void* const page =
      ::mmap(nullptr, sizeof(Number), PROT_READ | PROT_WRITE, MAP_SHARED | flags, file, 0);
  if (page == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
  return static_cast<Number*>(page);
}

Number* mapFile(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0 || ::ftruncate(file, sizeof(Number)) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  Number* const number = map(0, file);
  ::close(file);
  return number;
}

}  // namespace

SharedCounter::SharedCounter() : number_(map(MAP_ANONYMOUS, -1)) {}

SharedCounter::SharedCounter(const std::string& file) : number_(mapFile(file)) {}

SharedCounter::~SharedCounter() { ::munmap(number_, sizeof *number_); }

}  // namespace korvex::test
