#include "korvexd/os/File.h"

#include <cerrno>
#include <fcntl.h>
#include <korvex/receiver/SystemError.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace korvexd {
namespace {

constexpr const char* kTemporarySuffix = ".tmp";

/// For a folder, which cannot have two names. A rename replaces no folder but an empty one, and
/// nothing that is not a folder.
int renameFolderToFreeName(int parent, const char* from, const char* to) {
  struct stat found = {};
  if (::fstatat(parent, to, &found, AT_SYMLINK_NOFOLLOW) == 0) {
    errno = EEXIST;
    return -1;
  }
  return ::renameat(parent, from, parent, to);
}

/// The same in several steps. A link never replaces anything.
int renameInSteps(int folder, const char* from, const char* to) {
  struct stat found = {};
  if (::fstatat(folder, from, &found, AT_SYMLINK_NOFOLLOW) != 0) return -1;
  if (S_ISDIR(found.st_mode)) return renameFolderToFreeName(folder, from, to);
  return ::linkat(folder, from, folder, to, 0) == 0 ? ::unlinkat(folder, from, 0) : -1;
}

}  // namespace

File::~File() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

File::File(File&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

File& File::operator=(File&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  return *this;
}

File File::openAt(int folder, const std::string& name, int flags, mode_t mode,
                  const std::string& doing) {
  File file(::openat(folder, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode));
  if (file.descriptor() < 0) throw receiver::SystemError(doing, errno);
  // The process's umask, 077 in a daemon, must not shut out the readers of its statistics. Fails
  // harmlessly on file systems without permissions.
  if ((flags & O_CREAT) != 0) ::fchmod(file.descriptor(), mode);
  return file;
}

File File::openFolder(const std::string& path, const std::string& doing) {
  File folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.descriptor() < 0) throw receiver::SystemError(doing, errno);
  return folder;
}

bool File::isNamed(int folder, const std::string& name, Links links) const noexcept {
  struct stat here = {};
  struct stat there = {};
  const int flags = links == Links::Follow ? 0 : AT_SYMLINK_NOFOLLOW;
  return ::fstat(descriptor_, &here) == 0 && ::fstatat(folder, name.c_str(), &there, flags) == 0 &&
         here.st_dev == there.st_dev && here.st_ino == there.st_ino;
}

bool File::isRemoved() const noexcept {
  struct stat found = {};
  return ::fstat(descriptor_, &found) == 0 && found.st_nlink == 0;
}

std::uint64_t File::size(const std::string& doing) const {
  struct stat found = {};
  if (::fstat(descriptor_, &found) != 0) throw receiver::SystemError(doing, errno);
  return static_cast<std::uint64_t>(found.st_size);
}

void File::writeAll(const void* data, std::size_t size, const std::string& doing) {
  const auto* rest = static_cast<const unsigned char*>(data);
  while (size > 0) {
    const ssize_t written = ::write(descriptor_, rest, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw receiver::SystemError(doing, errno);
    rest += written;
    size -= static_cast<std::size_t>(written);
  }
}

void File::sync(const std::string& doing) {
  if (::fsync(descriptor_) != 0) throw receiver::SystemError(doing, errno);
}

File replaceFile(int folder, const std::string& name, const std::string& text, mode_t mode,
                 const std::string& doing) {
  const std::string temporary = name + kTemporarySuffix;
  // Must not write through a file that a crash left behind or an attacker planted.
  ::unlinkat(folder, temporary.c_str(), 0);
  try {
    File file = File::openAt(folder, temporary, O_WRONLY | O_CREAT | O_EXCL, mode, doing);
    file.writeAll(text.data(), text.size(), doing);
    file.sync(doing);
    if (::renameat(folder, temporary.c_str(), folder, name.c_str()) != 0) {
      throw receiver::SystemError(doing, errno);
    }
    return file;
  } catch (const receiver::SystemError&) {
    ::unlinkat(folder, temporary.c_str(), 0);
    throw;
  }
}

void renameWithoutReplacing(int folder, const std::string& from, const std::string& to,
                            const std::string& doing) {
  int result = ::renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE);
  const bool isUnknown = result != 0 && (errno == EINVAL || errno == ENOSYS);
  if (isUnknown) result = renameInSteps(folder, from.c_str(), to.c_str());
  if (result != 0) throw receiver::SystemError(doing, errno);
}

}  // namespace korvexd
