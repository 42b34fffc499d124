#include "queues/QueueObject.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <stdio.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#include "korvex/receiver/SystemError.h"

namespace korvex::receiver {
namespace {

constexpr char kFolder[] = "/dev/shm";
constexpr std::size_t kLongestPath = sizeof kFolder + 1 + NAME_MAX;

/// For systems without RENAME_NOREPLACE: a link never replaces anything. The object has both names
/// for a moment.
int linkAndUnlink(const char* from, const char* to) {
  return ::link(from, to) == 0 ? ::unlink(from) : -1;
}

}  // namespace

QueueObject::QueueObject(const std::string& name) noexcept
    // Non-blocking, so that a pipe under the name does not hold the caller up.
    : descriptor_(::shm_open(name.c_str(), O_RDWR | O_NONBLOCK, 0)) {
  struct stat found = {};
  if (!isOpen() || ::fstat(descriptor_, &found) != 0) return;
  device_ = found.st_dev;
  inode_ = found.st_ino;
}

QueueObject::~QueueObject() {
  if (isOpen()) ::close(descriptor_);
}

QueueObject::QueueObject(QueueObject&& other) noexcept { *this = std::move(other); }

QueueObject& QueueObject::operator=(QueueObject&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  std::swap(device_, other.device_);
  std::swap(inode_, other.inode_);
  return *this;
}

bool QueueObject::claim() const noexcept { return ::flock(descriptor_, LOCK_EX | LOCK_NB) == 0; }

bool QueueObject::isNamed(const std::string& name, off_t* size) const noexcept {
  struct stat named = {};
  if (!look(name, named) || named.st_dev != device_ || named.st_ino != inode_) return false;
  if (size != nullptr) *size = named.st_size;
  return true;
}

std::string QueueObject::path(const std::string& name) { return std::string(kFolder) + "/" + name; }

/// Allocates nothing: queues must be removable even when memory has run out.
bool QueueObject::look(const std::string& name, struct stat& found) noexcept {
  char path[kLongestPath];
  const int size = std::snprintf(path, sizeof path, "%s/%s", kFolder, name.c_str());
  if (static_cast<std::size_t>(size) < sizeof path) return ::lstat(path, &found) == 0;
  errno = ENAMETOOLONG;
  return false;
}

bool QueueObject::exists(const std::string& name) noexcept {
  struct stat found = {};
  return look(name, found) || errno != ENOENT;
}

void QueueObject::rename(const std::string& from, const std::string& to, const std::string& doing) {
  const std::string source = path(from);
  const std::string target = path(to);
  int result = ::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
  const bool isUnknown = result != 0 && (errno == EINVAL || errno == ENOSYS);
  if (isUnknown) result = linkAndUnlink(source.c_str(), target.c_str());
  if (result != 0) throw SystemError(doing, errno);
}

std::vector<std::string> QueueObject::names() {
  namespace fs = std::filesystem;
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator at(kFolder, error), end; at != end; at.increment(error)) {
    names.push_back(at->path().filename().string());
  }
  return names;
}

}  // namespace korvex::receiver
