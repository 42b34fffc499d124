#include "korvexd/sink/DirectoryStore.h"

#include <cerrno>
#include <fcntl.h>
#include <korvex/receiver/SystemError.h>
#include <spdlog/fmt/chrono.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "common/QueueName.h"
#include "common/StoredNames.h"
#include "korvexd/sink/DirectorySink.h"

namespace korvexd {
namespace {

constexpr mode_t kFolderMode = 0700;

std::shared_ptr<const File> openOutput(const std::string& path) {
  auto folder =
      std::make_shared<const File>(File::openFolder(path, "opening output folder " + path));
  // Reported at the start rather than by every stream.
  if (::faccessat(folder->descriptor(), ".", W_OK | X_OK, AT_EACCESS) != 0) {
    throw receiver::SystemError("making streams in output folder " + path, errno);
  }
  return folder;
}

/// False when the name is in use. The numbers start again with every daemon, so an earlier one may
/// have used it within the same second.
bool tryToMake(const File& parent, const std::string& name) {
  struct stat found = {};
  if (::fstatat(parent.descriptor(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0) return false;
  const std::string partial = name + korvex::common::kPartialSuffix;
  if (::mkdirat(parent.descriptor(), partial.c_str(), kFolderMode) == 0) return true;
  if (errno != EEXIST) throw receiver::SystemError("creating stream folder", errno);
  return false;
}

/// Uses the folder that was made for the stream; removes it when the rest cannot be made.
std::unique_ptr<receiver::Sink> openSink(const std::shared_ptr<const File>& parent,
                                         const std::string& name, const std::string& path,
                                         ExtraDigest digest) {
  try {
    return std::make_unique<DirectorySink>(parent, name, path, digest);
  } catch (const std::exception&) {
    const std::string partial = name + korvex::common::kPartialSuffix;
    ::unlinkat(parent->descriptor(), partial.c_str(), AT_REMOVEDIR);
    throw;
  }
}

}  // namespace

void throwOutputMoved(const std::string& path) {
  throw std::runtime_error("output folder was moved, replaced or unmounted: " + path);
}

DirectoryStore::DirectoryStore(const std::string& path) : path_(path), folder_(openOutput(path)) {}

std::unique_ptr<receiver::Sink> DirectoryStore::open(const std::string& queue, std::time_t opened,
                                                     ExtraDigest digest) {
  const std::shared_ptr<const File> folder = findFolder();
  const std::string prefix =
      fmt::format("{}-{:%Y%m%dT%H%M%SZ}-", korvex::common::fileNameOf(queue), fmt::gmtime(opened));
  for (;;) {
    const std::string name = prefix + std::to_string(++lastNumber_);
    if (tryToMake(*folder, name)) return openSink(folder, name, path_, digest);
  }
}

std::shared_ptr<const File> DirectoryStore::findFolder() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (folder_->isNamed(AT_FDCWD, path_, File::Links::Follow)) return folder_;
  if (!folder_->isRemoved()) throwOutputMoved(path_);
  return folder_ = openOutput(path_);
}

}  // namespace korvexd
