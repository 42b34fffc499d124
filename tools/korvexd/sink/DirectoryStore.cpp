#include "korvexd/sink/DirectoryStore.h"

#include <fcntl.h>
#include <spdlog/fmt/chrono.h>
#include <sys/stat.h>

#include <cerrno>

#include "korvexd/sink/DirectorySink.h"
#include "common/QueueName.h"
#include "korvex/receiver/SystemError.h"

namespace korvexd {
namespace {

constexpr mode_t kFolderMode = 0700;

}  // namespace

DirectoryStore::DirectoryStore(const std::string& path)
    : path_(path), folder_(File::openFolder(path, "opening output folder " + path)) {}

std::unique_ptr<receiver::Sink> DirectoryStore::open(const std::string& queue, std::time_t opened) {
  const std::string prefix = fmt::format("{}-{:%Y%m%dT%H%M%SZ}-", korvex::common::fileNameOf(queue), fmt::gmtime(opened));
  for (;;) {
    const std::string name = prefix + std::to_string(++lastNumber_);
    if (tryToMake(name)) return std::make_unique<DirectorySink>(folder_, name, path_);
  }
}

/// False when the name is in use. The numbers start anew with every daemon, so an earlier one may
/// have used it within the same second.
bool DirectoryStore::tryToMake(const std::string& name) const {
  struct stat found = {};
  if (::fstatat(folder_.descriptor(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0) return false;
  const std::string partial = name + DirectorySink::kPartialSuffix;
  if (::mkdirat(folder_.descriptor(), partial.c_str(), kFolderMode) == 0) return true;
  if (errno != EEXIST) throw receiver::SystemError("creating stream folder", errno);
  return false;
}

}  // namespace korvexd
