// Files as `korvex send` reads them: whatever pieces are asked for, together they are the file, and
// a file that shrinks or grows meanwhile gives what it then holds.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "Bytes.h"
#include "InputReader.h"
#include "StopSignal.h"

using korvex::tool::InputReader;
using korvex_fuzz::Input;
using korvex_fuzz::require;

namespace {

/// A file in memory under a name that can be opened again.
class MemoryFile {
 public:
  MemoryFile() : file_(::memfd_create("korvex-fuzz", MFD_CLOEXEC)) {
    require(file_ >= 0, "memfd_create");
    name_ = "/proc/self/fd/" + std::to_string(file_);
  }

  const std::string& name() const { return name_; }

  void set(const std::string& content) {
    resize(content.size());
    const ssize_t size = ::pwrite(file_, content.data(), content.size(), 0);
    require(size == static_cast<ssize_t>(content.size()), "pwrite");
  }
  void resize(std::size_t size) {
    require(::ftruncate(file_, static_cast<off_t>(size)) == 0, "ftruncate");
  }

 private:
  int file_;
  std::string name_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static korvex::tool::StopSignal stop;
  static MemoryFile file;
  static unsigned char buffer[64];
  Input input(bytes, size);
  const unsigned change = input.byte();
  std::size_t contentSize = input.byte();
  const std::uint8_t* const content = input.piece(contentSize);
  std::string expected(reinterpret_cast<const char*>(content), contentSize);
  file.set(expected);

  static const std::vector<std::string> names = {file.name()};
  InputReader reader(names, stop);
  require(reader.totalBytes() == expected.size(), "the file's size");
  require(reader.openNext(), "the file");
  std::string read;
  for (bool isChanged = false;; isChanged = true) {
    if (!isChanged && change != 0) {
      expected.resize(change, '\0');
      file.resize(change);
    }
    const std::size_t wanted = input.isEmpty() ? sizeof buffer : 1 + input.byte() % sizeof buffer;
    const std::size_t got = reader.fill(buffer, wanted);
    require(got <= wanted, "no more than asked for");
    read.append(reinterpret_cast<const char*>(buffer), got);
    if (got < wanted) break;
  }
  require(read == expected, "the pieces are the file");
  require(!reader.openNext(), "no further file");
  return 0;
}
