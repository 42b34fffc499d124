// Files as `korvex send` reads them: whatever pieces are asked for, and however a file shrinks and
// grows between two of them, each piece is what the file then holds behind the piece before.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "InputReader.h"
#include "StopSignal.h"
#include "fuzz/Input.h"

using korvex::test::Input;
using korvex::test::require;
using korvex::tool::InputReader;

namespace {

constexpr std::size_t kLargestFill = 16;

/// A file in memory under a name that can be opened again, and a copy of what it holds.
class MemoryFile {
 public:
  MemoryFile() : file_(::memfd_create("korvex-fuzz", MFD_CLOEXEC)) {
    require(file_ >= 0, "memfd_create");
    name_ = "/proc/self/fd/" + std::to_string(file_);
  }

  const std::string& name() const { return name_; }
  const std::string& content() const { return content_; }

  void resize(std::size_t size) {
    content_.resize(size, '\0');
    require(::ftruncate(file_, static_cast<off_t>(size)) == 0, "ftruncate");
  }

  /// Bytes that differ from their neighbours, and from zero.
  void append(std::size_t size) {
    const std::size_t end = content_.size();
    for (std::size_t i = 0; i < size; ++i) content_ += static_cast<char>(1 + content_.size() % 251);
    const ssize_t done = ::pwrite(file_, &content_[end], size, static_cast<off_t>(end));
    require(done == static_cast<ssize_t>(size), "pwrite");
  }

 private:
  int file_;
  std::string name_;
  std::string content_;
};

/// Reads a file from its start to the end that it has by then.
class Run {
 public:
  Run(MemoryFile& file, InputReader& reader) : file_(file), reader_(reader) {}

  void step(unsigned what) {
    const std::size_t how = what >> 2;
    switch (what & 3) {
      case 0:
        return file_.resize(4 * how);
      case 1:
        return file_.append(1 + how);
      default:
        return fill(1 + how % kLargestFill);
    }
  }

  void fill(std::size_t wanted) {
    // At the end of its place, so that the sanitizer sees an overrun.
    static unsigned char place[kLargestFill];
    unsigned char* const buffer = place + kLargestFill - wanted;
    const std::string& content = file_.content();
    const std::size_t left = content.size() - std::min(position_, content.size());
    const std::size_t expected = std::min(wanted, left);
    require(reader_.fill(buffer, wanted) == expected, "the piece's size");
    require(std::memcmp(buffer, content.data() + (content.size() - left), expected) == 0,
            "the piece");
    position_ += expected;
    hasEnded_ = expected < wanted;
  }

  bool hasEnded() const { return hasEnded_; }

 private:
  MemoryFile& file_;
  InputReader& reader_;
  std::size_t position_ = 0;
  bool hasEnded_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static korvex::tool::StopSignal stop;
  static MemoryFile file;
  static const std::vector<std::string> names = {file.name()};
  Input input(bytes, size);
  file.resize(0);
  file.append(input.byte());

  InputReader reader(names, stop);
  require(reader.totalBytes() == file.content().size(), "the file's size");
  require(reader.openNext(), "the file");
  Run run(file, reader);
  while (!input.isEmpty() && !run.hasEnded()) run.step(input.byte());
  while (!run.hasEnded()) run.fill(kLargestFill);
  require(!reader.openNext(), "no further file");
  return 0;
}
