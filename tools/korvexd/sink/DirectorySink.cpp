#include "korvexd/sink/DirectorySink.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <korvex/receiver/SystemError.h>
#include <stdexcept>
#include <stdio.h>
#include <string>
#include <unistd.h>
#include <utility>

#include "common/StoredNames.h"
#include "korvexd/sink/DirectoryStore.h"
#include "korvexd/sink/Manifest.h"

namespace korvexd {
namespace {

using korvex::common::kDataName;
using korvex::common::kManifestName;

/// From this size on, bytes that need no digest are written without being gathered first.
constexpr std::size_t kWorthAWrite = std::size_t{64} * 1024;
constexpr mode_t kFileMode = 0600;

constexpr const char* kWritingData = "writing data";
constexpr const char* kWritingManifest = "writing manifest";

}  // namespace

DirectorySink::DirectorySink(std::shared_ptr<const File> parent, std::string name, std::string path,
                             ExtraDigest digest)
    : parent_(std::move(parent)),
      name_(std::move(name)),
      path_(std::move(path)),
      digest_(digest),
      blocks_(digest) {
  folder_ = File::openAt(parent_->descriptor(), partialName(), O_RDONLY | O_DIRECTORY, 0,
                         "opening stream folder");
  data_ = File::openAt(folder_.descriptor(), kDataName, O_WRONLY | O_CREAT | O_EXCL, kFileMode,
                       "creating data file");
}

void DirectorySink::write(const unsigned char* data, std::size_t size) {
  if (digest_ == ExtraDigest::None && size >= kWorthAWrite) {
    writeGathered();
    return writeData(data, size);
  }
  while (size > 0) {
    const std::size_t piece = std::min(size, DigestedBlocks::kBlockSize - gathered_);
    gather(data, piece);
    data += piece;
    size -= piece;
  }
}

void DirectorySink::gather(const unsigned char* data, std::size_t size) {
  std::memcpy(blocks_.current() + gathered_, data, size);
  gathered_ += size;
  if (gathered_ == DigestedBlocks::kBlockSize) writeGathered();
}

void DirectorySink::writeGathered() {
  const Gathered bytes = digestGathered();
  writeData(bytes.data, bytes.size);
}

/// Emptied first: after a failure the same bytes must not be written again.
DirectorySink::Gathered DirectorySink::digestGathered() {
  const Gathered bytes{blocks_.current(), std::exchange(gathered_, 0)};
  blocks_.submit(bytes.size);
  return bytes;
}

void DirectorySink::writeData(const unsigned char* data, std::size_t size) {
  data_.writeAll(data, size, kWritingData);
  written_ += size;
  if (written_ - onTheWay_ < kWritebackSize) return;
  // Only a hint. The sync at the end makes sure that everything has arrived.
  ::sync_file_range(data_.descriptor(), static_cast<off64_t>(onTheWay_),
                    static_cast<off64_t>(written_ - onTheWay_), SYNC_FILE_RANGE_WRITE);
  onTheWay_ = written_;
}

void DirectorySink::complete(const receiver::StreamSummary& summary,
                             const receiver::StillFinishing&) {
  writeGathered();
  if (::fdatasync(data_.descriptor()) != 0) throw receiver::SystemError("syncing data", errno);
  const File manifest =
      replaceFile(folder_.descriptor(), kManifestName, manifestOf(summary, blocks_.hex(), ""),
                  kFileMode, kWritingManifest);
  folder_.sync("syncing stream folder");
  checkPlaces(manifest);
  publish();
}

/// The written file is held open, but may have been removed or replaced under its name since, and
/// the name is what the producer is promised.
void DirectorySink::checkPlaces(const File& manifest) const {
  const auto expect = [](const char* what, const File& file, int folder, const std::string& name) {
    if (file.isNamed(folder, name, File::Links::Refuse)) return;
    throw std::runtime_error(std::string(what) + " was removed or replaced: " + name);
  };
  if (!parent_->isNamed(AT_FDCWD, path_, File::Links::Follow)) throwOutputMoved(path_);
  expect("stream folder", folder_, parent_->descriptor(), partialName());
  expect("data file", data_, folder_.descriptor(), kDataName);
  expect("manifest", manifest, folder_.descriptor(), kManifestName);
  const std::uint64_t size = data_.size("checking the data file");
  if (size == written_) return;
  throw std::runtime_error("data file was changed: found " + std::to_string(size) +
                           " bytes, expected " + std::to_string(written_));
}

void DirectorySink::publish() {
  const std::string partial = partialName();
  const int parent = parent_->descriptor();
  renameWithoutReplacing(parent, partial, name_, "renaming stream folder");
  if (::fsync(parent) == 0) {
    isFinal_ = true;
    return;
  }
  // Not known to be on the disk: the producer gets a failure, and the name must not claim
  // otherwise. On a disk that accepts no more writes the name stays as it is.
  const int error = errno;
  isFinal_ = ::renameat(parent, name_.c_str(), parent, partial.c_str()) != 0;
  throw receiver::SystemError("syncing output folder", error);
}

void DirectorySink::abandon(const receiver::StreamSummary& summary, const std::string& reason) {
  const Gathered bytes = digestGathered();
  try {
    replaceFile(folder_.descriptor(), kManifestName, manifestOf(summary, blocks_.hex(), reason),
                kFileMode, kWritingManifest);
  } catch (const std::exception&) {
    // There may be room again by now, or still some in the data file, which already exists.
    writeData(bytes.data, bytes.size);
    throw;
  }
  writeData(bytes.data, bytes.size);
}

}  // namespace korvexd
