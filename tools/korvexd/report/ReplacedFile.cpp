#include "korvexd/report/ReplacedFile.h"

#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <utility>

#include "korvexd/os/File.h"

namespace korvexd {
namespace {

constexpr mode_t kFileMode = 0644;

/// Anything else, /dev/stdout for example, would be swapped for a file.
void refuseOtherThanFile(const std::string& path, const std::string& doing) {
  struct stat found = {};
  if (::lstat(path.c_str(), &found) != 0 || S_ISREG(found.st_mode)) return;
  throw std::runtime_error(doing + ": found something else, expected a file");
}

}  // namespace

ReplacedFile::ReplacedFile(std::string path, const std::string& content)
    : path_(std::move(path)), doing_("writing " + content + " to " + path_) {}

void ReplacedFile::update(std::string text) {
  if (text == written_) return;
  refuseOtherThanFile(path_, doing_);
  replaceFile(AT_FDCWD, path_, text, kFileMode, doing_);
  written_ = std::move(text);
}

}  // namespace korvexd
