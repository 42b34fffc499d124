#include "korvexd/DirectorySink.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "korvexd/Manifest.h"
#include "korvexd/SystemError.h"

namespace korvexd {
namespace {

constexpr std::size_t kGatherSize = std::size_t{256} * 1024;
constexpr mode_t kFileMode = 0600;

const char kDataName[] = "data";
const char kManifestName[] = "manifest.json";
const char kWritingData[] = "writing data";
const char kWritingManifest[] = "writing manifest";

}  // namespace

DirectorySink::DirectorySink(const File& parent, std::string name, const std::string& path)
    : parent_(parent),
      name_(std::move(name)),
      path_(path + "/" + name_),
      folder_(File::openAt(parent.descriptor(), name_ + kPartialSuffix, O_RDONLY | O_DIRECTORY, 0,
                           "opening stream folder")),
      data_(File::openAt(folder_.descriptor(), kDataName, O_WRONLY | O_CREAT | O_EXCL, kFileMode,
                         "creating data file")) {
  gathered_.reserve(kGatherSize);
}

void DirectorySink::write(const unsigned char* data, std::size_t size) {
  sha256_.update(data, size);
  if (size > kGatherSize - gathered_.size()) writeGathered();
  if (size >= kGatherSize) return writeData(data, size);
  gathered_.insert(gathered_.end(), data, data + size);
}

void DirectorySink::writeGathered() {
  // Emptied first: after a failure nobody may write the same bytes once more.
  std::vector<unsigned char> bytes;
  bytes.swap(gathered_);
  writeData(bytes.data(), bytes.size());
  bytes.clear();
  bytes.swap(gathered_);
}

void DirectorySink::writeData(const unsigned char* data, std::size_t size) {
  data_.writeAll(data, size, kWritingData);
  written_ += size;
  if (written_ - onTheWay_ < kWritebackSize) return;
  // Only a wish. Whether everything has arrived is asked for when the stream closes.
  ::sync_file_range(data_.descriptor(), static_cast<off64_t>(onTheWay_),
                    static_cast<off64_t>(written_ - onTheWay_), SYNC_FILE_RANGE_WRITE);
  onTheWay_ = written_;
}

void DirectorySink::complete(const StreamSummary& summary, const StillFinishing&) {
  writeGathered();
  if (::fdatasync(data_.descriptor()) != 0) throw SystemError("syncing data", errno);
  replaceFile(folder_.descriptor(), kManifestName, manifestOf(summary, sha256_.hex(), ""),
              kFileMode, kWritingManifest);
  folder_.sync("syncing stream folder");
  publish();
}

void DirectorySink::publish() {
  const std::string partial = name_ + kPartialSuffix;
  const int parent = parent_.descriptor();
  renameWithoutReplacing(parent, partial, name_, "renaming stream folder");
  if (::fsync(parent) == 0) {
    isFinal_ = true;
    return;
  }
  // Not known to be on the disk: the producer is told so, and the name must not say otherwise. A
  // disk that takes nothing any more leaves it as it is.
  const int error = errno;
  isFinal_ = ::renameat(parent, name_.c_str(), parent, partial.c_str()) != 0;
  throw SystemError("syncing output folder", error);
}

void DirectorySink::abandon(const StreamSummary& summary, const std::string& reason) {
  const std::string manifest = manifestOf(summary, sha256_.hex(), reason);
  try {
    replaceFile(folder_.descriptor(), kManifestName, manifest, kFileMode, kWritingManifest);
  } catch (const SystemError&) {
    // There may be room where there was none, or in a file that exists already.
    writeGathered();
    throw;
  }
  writeGathered();
}

}  // namespace korvexd
